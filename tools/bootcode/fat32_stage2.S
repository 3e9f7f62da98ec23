# The FAT32 boot-code sector, written at sectors 2 and 8 of the volume and run by the FAT32
# loader at 0000:7E00. It does not start an operating system: it tells the user that the
# volume is not a system disk, waits for a key and reboots. The whole 512 bytes are stored.
        .code16
        .text
sector:
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
