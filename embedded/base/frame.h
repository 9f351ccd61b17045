// How a routine in assembler begins, so that whoever walks the frame pointers or unwinds finds its frame.
#pragma once

#define ASM_ENTER_FRAME                                                                                                \
    "    .cfi_startproc\n"                                                                                             \
    "    pushq %rbp\n"                                                                                                 \
    "    .cfi_def_cfa_offset 16\n"                                                                                     \
    "    .cfi_offset %rbp, -16\n"                                                                                      \
    "    movq %rsp, %rbp\n"                                                                                            \
    "    .cfi_def_cfa_register %rbp\n"
