# Boot loader of FAT12 and FAT16 volumes. The formatter stores bytes 62..509 of the assembled
# sector after the BIOS parameter block; the jump at offset 0 (EB 3C 90) lands on `entry`.
# It searches the root directory for IO.SYS and MSDOS.SYS and starts IO.SYS (start_system
# in disk.inc). Without them it prints "Invalid system disk", after a failed read "Disk I/O
# error", then waits for a key and reboots. Only near jumps and DS = 0 addressing are used,
# so it runs whether the BIOS entered it at 0000:7C00 or 07C0:0000.
        .code16
        .text
        .set    ORIGIN, 0x7c00
        .set    DIRBUF, 0x7e00
        .set    VAR_DRIVE, 36
        .include "vars.inc"
sector:
        .org    62
entry:
        cli
        xorl    %eax, %eax
        movw    %ax, %ss
        movw    $STACK_TOP, %sp
        movw    %ax, %ds
        movw    %ax, %es
        sti
        cld
        movw    $ORIGIN, %bp
        movb    %dl, VAR_DRIVE(%bp)     # the drive the BIOS booted
        movw    %ax, VAR_IO(%bp)        # neither file seen yet

        # Root directory: after the reserved sectors and the FATs. The formatter keeps both
        # below sector 65536 of a FAT12 or FAT16 volume.
        movzbw  16(%bp), %ax            # number of FATs
        mulw    22(%bp)                 # sectors per FAT
        addw    14(%bp), %ax            # reserved sectors (EAX's high half is still 0)
        movw    17(%bp), %cx            # root directory entries, 16 a sector
        addw    $15, %cx
        shrw    $4, %cx
        movzwl  %cx, %edx
        addl    %eax, %edx
        movl    %edx, VAR_DATA(%bp)     # the data area follows the root directory

        movw    $DIRBUF, %bx
1:      call    read_sector
        call    scan
        jc      2f
        incl    %eax
        loop    1b
2:      cmpw    $0x0101, VAR_IO(%bp)    # both IO.SYS and MSDOS.SYS
        jne     invalid
        jmp     start_system

        .include "disk.inc"
        .include "scan.inc"
        .include "print.inc"

        .org    510
        .byte   0x55, 0xaa
