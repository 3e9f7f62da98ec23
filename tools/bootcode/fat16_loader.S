# Boot loader of FAT12 and FAT16 volumes. The formatter stores bytes 62..509 of the assembled
# sector after the BIOS parameter block; the jump at offset 0 (EB 3C 90) lands on `entry`.
# The loader does not start an operating system: it tells the user that the volume is not a
# system disk, waits for a key and reboots.
        .code16
        .text
sector:
        .org    62
entry:
        cli
        xorw    %ax, %ax
        movw    %ax, %ss
        movw    $0x7c00, %sp
        sti
        cld
        call    base
base:   popw    %di
        pushw   %cs
        popw    %ds
        leaw    (msg_invalid - base)(%di), %si
        call    print
        jmp     replace_and_reboot

        .include "print.inc"

        .org    510
        .byte   0x55, 0xaa
