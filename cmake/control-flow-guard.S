/*
 * What Control Flow Guard needs of every module, and what MinGW's C runtime does not bring before
 * its version 11: the module's load configuration, which tells Windows where the tables of
 * permitted targets are (the linker makes them), and the two pointers that guarded code calls
 * through. Windows replaces them when it loads the module. Where it does not guard, they stay as
 * they are here, and every target is permitted.
 */

        .text
        .p2align 4
permit_target:
        ret
        .p2align 4
call_target:
        jmp     *%rax

        .section .00cfg, "dr"
        .p2align 3
        .globl  __guard_check_icall_fptr
__guard_check_icall_fptr:
        .quad   permit_target
        .globl  __guard_dispatch_icall_fptr
__guard_dispatch_icall_fptr:
        .quad   call_target

/* IMAGE_LOAD_CONFIG_DIRECTORY64, of which all else is zero. */
        .section .rdata, "dr"
        .p2align 3
        .globl  _load_config_used
_load_config_used:
        .long   load_config_end - _load_config_used     /* Size */
        .zero   0x70 - 0x04
        .quad   __guard_check_icall_fptr        /* GuardCFCheckFunctionPointer */
        .quad   __guard_dispatch_icall_fptr     /* GuardCFDispatchFunctionPointer */
        .quad   __guard_fids_table              /* GuardCFFunctionTable */
        .quad   __guard_fids_count              /* GuardCFFunctionCount */
        .long   __guard_flags                   /* GuardFlags */
        .zero   0xa0 - 0x94
        .quad   __guard_iat_table               /* GuardAddressTakenIatEntryTable */
        .quad   __guard_iat_count               /* GuardAddressTakenIatEntryCount */
        .quad   __guard_longjmp_table           /* GuardLongJumpTargetTable */
        .quad   __guard_longjmp_count           /* GuardLongJumpTargetCount */
        .zero   0x108 - 0xc0
        .quad   __guard_eh_cont_table           /* GuardEHContinuationTable */
        .quad   __guard_eh_cont_count           /* GuardEHContinuationCount */
load_config_end:
