# Master boot code. The BIOS loads sector 0 to 0:7C00; the code moves itself to 0:0600, finds
# the one active entry of the partition table, reads that partition's first sector to 0:7C00
# (INT 13h extended read, or CHS from the entry when the BIOS lacks it), checks its 55 AA
# signature and jumps to it with DL = the boot drive and DS:SI = the active table entry.
# A status byte other than 0 and 80h, or two active entries: "Invalid partition table".
# No active entry: INT 18h (the BIOS tries its next boot device).
# Only bytes 0..439 are code: the disk signature at 440 and the table at 446 stay the disk's.
        .code16
        .text
        .set    ORIGIN, 0x0600
        .set    DRIVE, 0x7bfe           # the boot drive, kept above the stack
sector:
        cli
        xorw    %ax, %ax
        movw    %ax, %ss
        movw    $DRIVE, %sp
        movw    %ax, %ds
        movw    %ax, %es
        sti
        cld
        movw    $0x7c00, %si
        movw    $ORIGIN, %di
        movw    $256, %cx
        rep movsw
        ljmp    $0, $ORIGIN + (moved - sector)
moved:
        movb    %dl, DRIVE
        movw    $ORIGIN + 446, %si
        xorw    %bp, %bp                # the active entry
        movw    $4, %cx
1:      movb    (%si), %al
        testb   %al, %al
        jz      2f
        cmpb    $0x80, %al
        jne     bad_table
        testw   %bp, %bp
        jnz     bad_table
        movw    %si, %bp
2:      addw    $16, %si
        loop    1b
        testw   %bp, %bp
        jnz     load
        int     $0x18
        jmp     halt

load:
        movw    $3, %di                 # attempts
retry:
        movb    DRIVE, %dl
        movb    $0x41, %ah
        movw    $0x55aa, %bx
        int     $0x13
        movb    DRIVE, %dl
        jc      chs
        cmpw    $0xaa55, %bx
        jne     chs
        testb   $1, %cl
        jz      chs
        pushl   $0                      # disk address packet: 16 bytes, one sector to 0:7C00
        pushl   8(%bp)
        pushw   $0
        pushw   $0x7c00
        pushw   $1
        pushw   $16
        movw    %sp, %si
        movb    $0x42, %ah
        int     $0x13
        leaw    16(%si), %sp            # drops the packet, keeps the carry
        jmp     3f
chs:    movb    1(%bp), %dh             # head, then sector and cylinder as the entry has them
        movw    2(%bp), %cx
        movw    $0x7c00, %bx
        movw    $0x0201, %ax
        int     $0x13
3:      jnc     4f
        xorb    %ah, %ah                # reset the drive and try again
        movb    DRIVE, %dl
        int     $0x13
        decw    %di
        jnz     retry
        movw    $ORIGIN + (msg_load - sector), %si
        jmp     fail
4:      cmpw    $0xaa55, 0x7dfe
        jne     missing
        movw    %bp, %si
        movb    DRIVE, %dl
        ljmp    $0, $0x7c00

bad_table:
        movw    $ORIGIN + (msg_table - sector), %si
        jmp     fail
missing:
        movw    $ORIGIN + (msg_missing - sector), %si
fail:   lodsb
        orb     %al, %al
        jz      halt
        movb    $0x0e, %ah
        movw    $0x0007, %bx
        int     $0x10
        jmp     fail
halt:   hlt
        jmp     halt

msg_table:      .asciz  "Invalid partition table"
msg_load:       .asciz  "Error loading operating system"
msg_missing:    .asciz  "Missing operating system"

        .org    440
        .org    510
        .byte   0x55, 0xaa
