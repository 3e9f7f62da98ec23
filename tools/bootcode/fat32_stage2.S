# The FAT32 boot-code sector, written at sectors 2 and 8 of the volume and run by the FAT32
# loader at 0000:7E00 with BP = 0x7C00 and the BPB's drive number set to the boot drive. It follows the
# root directory's cluster chain looking for IO.SYS or WINBOOT.SYS (IO.SYS when both are there)
# and for MSDOS.SYS and starts the system (start_system in disk.inc); otherwise "Invalid system
# disk".
        .code16
        .text
        .set    ORIGIN, 0x7e00
        .set    DIRBUF, 0x8000
        .set    FATBUF, 0x8200
        .set    HAVE_ALT, 1
        .set    VAR_DRIVE, 64
        .include "vars.inc"
sector:
        # The data area: after the reserved sectors and the FATs.
        movzwl  14(%bp), %edi           # reserved sectors: where the first FAT starts
        movzbl  16(%bp), %eax           # number of FATs
        mull    36(%bp)                 # sectors per FAT (32-bit)
        addl    %edi, %eax
        movl    %eax, VAR_DATA(%bp)

        movl    44(%bp), %eax           # the root directory's first cluster
cluster:
        cmpl    $2, %eax
        jb      done
        cmpl    $0x0ffffff8, %eax
        jae     done
        pushl   %eax
        subl    $2, %eax
        movzbl  13(%bp), %ecx           # sectors per cluster
        mull    %ecx
        addl    VAR_DATA(%bp), %eax
        movw    $DIRBUF, %bx
1:      call    read_sector
        call    scan
        jc      2f
        incl    %eax
        loop    1b
        popl    %eax
        # The next cluster from the first FAT: 128 entries a sector.
        movl    %eax, %esi
        shrl    $7, %eax
        addl    %edi, %eax
        movw    $FATBUF, %bx
        call    read_sector
        andw    $127, %si
        shlw    $2, %si
        movl    FATBUF(%si), %eax
        andl    $0x0fffffff, %eax
        jmp     cluster
2:      popl    %eax
done:   cmpw    $0x0101, VAR_IO(%bp)    # IO.SYS or WINBOOT.SYS, and MSDOS.SYS
        jne     invalid
        jmp     start_system

        .include "disk.inc"
        .include "scan.inc"
name_alt:       .ascii  "WINBOOT SYS"
        .include "print.inc"

        .org    510
        .byte   0x55, 0xaa
