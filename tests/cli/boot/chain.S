# A stand-in volume boot sector for the master boot code test: it reports on the emulator's
# debug port (0xE9) the boot drive and the table entry that DS:SI points at, then ends the
# emulator through its exit device (port 0xF4).
        .code16
        .text
sector:
        cli
        movb    (%si), %bl              # the entry's status
        movl    8(%si), %ebp            # and its first sector
        xorw    %ax, %ax
        movw    %ax, %ds
        movw    %ax, %ss
        movw    $0x7c00, %sp
        sti
        cld
        movw    $0x7c00 + (m_chain - sector), %si
        call    out
        cmpb    $0x80, %dl
        jne     1f
        movw    $0x7c00 + (m_drive - sector), %si
        call    out
1:      cmpb    $0x80, %bl
        jne     2f
        movw    $0x7c00 + (m_active - sector), %si
        call    out
2:      movw    $0x7c00 + (m_start - sector), %si
        call    out
        movl    %ebp, %eax
        movw    $8, %cx
3:      roll    $4, %eax
        pushw   %ax
        andb    $15, %al
        addb    $'0', %al
        cmpb    $'9', %al
        jbe     4f
        addb    $7, %al
4:      outb    %al, $0xe9
        popw    %ax
        loop    3b
        movb    $'\n', %al
        outb    %al, $0xe9
        movb    $0, %al
        outb    %al, $0xf4
5:      hlt
        jmp     5b

out:    lodsb
        orb     %al, %al
        jz      9f
        outb    %al, $0xe9
        jmp     out
9:      ret

m_chain:        .asciz  "chain-loaded"
m_drive:        .asciz  ", drive 80h"
m_active:       .asciz  ", active entry"
m_start:        .asciz  ", start "

        .org    510
        .byte   0x55, 0xaa
