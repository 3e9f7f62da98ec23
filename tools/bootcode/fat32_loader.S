# Boot loader of FAT32 volumes. The formatter stores bytes 90..509 of the assembled sector
# after the FAT32 BIOS parameter block; the jump at offset 0 (EB 58 90) lands on `entry`.
# It reads the boot-code sector (sector 2 of the volume) to 0:7E00 and runs it with BP =
# 0x7C00 and the BPB's drive number set to the boot drive. A read error prints "Disk I/O
# error"; a sector without the 55 AA signature "Invalid system disk".
        .code16
        .text
        .set    ORIGIN, 0x7c00
        .set    VAR_DRIVE, 64
        .include "vars.inc"
sector:
        .org    90
entry:
        cli
        xorw    %ax, %ax
        movw    %ax, %ss
        movw    $STACK_TOP, %sp
        movw    %ax, %ds
        movw    %ax, %es
        sti
        cld
        movw    $ORIGIN, %bp
        movb    %dl, VAR_DRIVE(%bp)     # the drive the BIOS booted
        movw    %ax, VAR_IO(%bp)        # neither file seen yet

        movl    $2, %eax
        movw    $0x7e00, %bx
        call    read_sector
        cmpw    $0xaa55, 0x7ffe
        jne     invalid
        ljmp    $0, $0x7e00

        .include "disk.inc"
        .include "print.inc"

        .org    510
        .byte   0x55, 0xaa
