# Boot loader of FAT32 volumes. The formatter stores bytes 90..509 of the assembled sector
# after the FAT32 BIOS parameter block; the jump at offset 0 (EB 58 90) lands on `entry`.
# It reads the boot-code sector (sector 2 of the volume, found through the hidden-sectors
# field) to 0:7E00 with the BIOS extended read and runs it. A read error prints
# "Disk I/O error"; a sector without the 55 AA signature "Invalid system disk".
        .code16
        .text
sector:
        .org    90
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

        # Disk address packet on the stack: size 16, one sector to 0000:7E00, LBA = hidden + 2.
        movl    (sector + 28 - base)(%di), %eax
        addl    $2, %eax
        pushl   $0
        pushl   %eax
        pushw   $0
        pushw   $0x7e00
        pushw   $1
        pushw   $0x0010
        movw    %sp, %si
        pushw   %ds
        pushw   %ss
        popw    %ds
        movb    $0x42, %ah
        int     $0x13           # DL still holds the boot drive passed by the BIOS
        popw    %ds
        setc    %cl
        addw    $16, %sp
        testb   %cl, %cl
        jnz     io_error

        xorw    %ax, %ax
        movw    %ax, %es
        cmpw    $0xaa55, %es:0x7ffe
        jne     invalid
        ljmp    $0, $0x7e00

io_error:
        leaw    (msg_ioerror - base)(%di), %si
        call    print
        jmp     replace_and_reboot
invalid:
        leaw    (msg_invalid - base)(%di), %si
        call    print
        jmp     replace_and_reboot

        .include "print.inc"

        .org    510
        .byte   0x55, 0xaa
