/* rax or xmm0 dl_call_linux_x64(size_t stack_size, const char *stack_block,
 *                               const int64_t int_regs[6], const double float_regs[8], void *fn)
 *
 *   in:  rdi stack_size   rsi stack_block   rdx int_regs   rcx float_regs   r8 fn
 *
 * The one trick: rbp keeps the frame, so that the stack pointer can be lowered by an amount known
 * only now, and rbx (which fn preserves) is all that is needed afterwards. Pushing and setting rbp
 * first keeps both ways to walk the stack intact: the chain of frame pointers, and the unwinder,
 * which finds the frame from rbp whatever the stack pointer is.
 */
#ifdef __CET__
#include <cet.h>
#endif
#ifndef _CET_ENDBR
#define _CET_ENDBR
#endif

        .text
        .globl  dl_call_linux_x64
        .type   dl_call_linux_x64, @function
        .p2align 4
dl_call_linux_x64:
        .cfi_startproc
        _CET_ENDBR
        pushq   %rbp
        .cfi_def_cfa_offset 16
        .cfi_offset %rbp, -16
        movq    %rsp, %rbp
        .cfi_def_cfa_register %rbp
        pushq   %rbx
        .cfi_offset %rbx, -24
        movq    %r8, %rbx

        /* 64-bit moves: a float in the low half of its slot arrives in the low half. */
        movsd   (%rcx), %xmm0
        movsd   8(%rcx), %xmm1
        movsd   16(%rcx), %xmm2
        movsd   24(%rcx), %xmm3
        movsd   32(%rcx), %xmm4
        movsd   40(%rcx), %xmm5
        movsd   48(%rcx), %xmm6
        movsd   56(%rcx), %xmm7

        /* Room for the block, then the pad that aligns the stack pointer to 16: three words lie
           above the block (return address, rbp, rbx), so an even word count needs one more. */
        subq    %rdi, %rsp
        leaq    8(%rdi), %rax
        andl    $15, %eax
        subq    %rax, %rsp

        /* Copy the block: whole words from the last down, then the bytes after them. */
        movq    %rdi, %rcx
        shrq    $3, %rcx
        jz      .Lbytes
.Lword:
        movq    -8(%rsi,%rcx,8), %rax
        movq    %rax, -8(%rsp,%rcx,8)
        decq    %rcx
        jnz     .Lword
.Lbytes:
        testb   $7, %dil
        jnz     .Lbyte

.Lregisters:
        movq    (%rdx), %rdi
        movq    8(%rdx), %rsi
        movq    24(%rdx), %rcx
        movq    32(%rdx), %r8
        movq    40(%rdx), %r9
        movq    16(%rdx), %rdx          /* last: it held the array */
        movl    $8, %eax                /* vector registers used, for a variadic fn */
        call    *%rbx

        .cfi_remember_state
        movq    -8(%rbp), %rbx
        .cfi_restore %rbx
        leave
        .cfi_restore %rbp
        .cfi_def_cfa %rsp, 8
        ret

        /* No descriptor makes a block of odd size; the contract still copies every byte of one. */
        .cfi_restore_state
.Lbyte:
        movb    -1(%rsi,%rdi), %al
        movb    %al, -1(%rsp,%rdi)
        decq    %rdi
        testb   $7, %dil
        jnz     .Lbyte
        jmp     .Lregisters
        .cfi_endproc
        .size   dl_call_linux_x64, . - dl_call_linux_x64

        .section .note.GNU-stack, "", @progbits
