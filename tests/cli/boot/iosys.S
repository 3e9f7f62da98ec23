# A stand-in IO.SYS for the boot tests: the loader reads its first four sectors to 0070:0000
# and enters it at 0070:0200. It reports on the emulator's debug port (0xE9) what it was
# handed, then ends the emulator through its exit device (port 0xF4).
        .code16
        .text
base:
        .ascii  "MZ"
        .org    0x200
start:
        cli
        pushw   %cs
        popw    %ds
        movw    $(m_started - base), %si
        call    out
        cmpb    $0x80, %dl              # the boot drive
        jne     1f
        movw    $(m_drive - base), %si
        call    out
1:      cmpw    $512, 11(%bp)           # SS:BP = the boot sector with its BPB
        jne     2f
        cmpw    $0xaa55, 510(%bp)
        jne     2f
        movw    $(m_bpb - base), %si
        call    out
2:      cmpl    $0x4b534944, (last - base)   # the fourth sector was loaded too
        jne     3f
        movw    $(m_four - base), %si
        call    out
3:      movw    $(m_end - base), %si
        call    out
        movb    $0, %al
        outb    %al, $0xf4
4:      hlt
        jmp     4b

out:    lodsb
        orb     %al, %al
        jz      9f
        outb    %al, $0xe9
        jmp     out
9:      ret

m_started:      .asciz  "IO.SYS started"
m_drive:        .asciz  ", drive 80h"
m_bpb:          .asciz  ", BPB at SS:BP"
m_four:         .asciz  ", four sectors"
m_end:          .asciz  "\n"

        .org    0x7fc
last:   .ascii  "DISK"
        .org    0xa00
