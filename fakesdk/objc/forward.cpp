// The forwarding entry points, _objc_msgForward and _objc_msgForward_stret: what a lookup returns
// for a selector the class does not implement. They are called with the message's own arguments
// in whatever function type the sender cast them to, so they are written in assembly: save every
// argument register, ask the runtime where the message goes, restore the registers with the new
// receiver in place, and jump there. The two differ only in where the receiver and selector are:
// on x86-64 a struct returned through memory takes the result's address in the first argument
// register, so the _stret entry finds the receiver in the second and the selector in the third.
// Called in the wrong convention, an entry finds no selector where it expects one and aborts, as
// Apple's forwarding does.
#include "forward.h"
#include "internal.h"

#include <cstdio>
#include <cstdlib>

#if !defined(__x86_64__)
#error "fakesdk's forwarding entry points are written for x86-64"
#endif

// Where the message goes: the receiver's forwardingTargetForSelector: if it answers another object
// (the receiver slot is rewritten to it), else the unrecognised-selector exception. Never returns
// to an entry called in the wrong convention.
extern "C" __attribute__((visibility("hidden"))) IMP fakesdk_forwardingTarget(id *receiver, SEL sel, bool stret)
{
    if (!fakeobjc::isSelector(sel)) {
        std::fprintf(stderr,
                     "*** NSForwarding: warning: selector (%p) for message does not match selector known to "
                     "Objective C runtime -- abort (%s called for a message of the other convention?)\n",
                     static_cast<void *>(sel), stret ? "_objc_msgForward_stret" : "_objc_msgForward");
        std::abort();
    }
    id self = *receiver;
    Class cls = object_getClass(self);
    static SEL const forwardingTargetForSelector = sel_registerName("forwardingTargetForSelector:");
    if (class_respondsToSelector(cls, forwardingTargetForSelector)) {
        id target = fakeobjc::msg<id>(self, forwardingTargetForSelector, sel);
        if (target && target != self) {
            *receiver = target;
            return stret ? class_getMethodImplementation_stret(object_getClass(target), sel)
                         : class_getMethodImplementation(object_getClass(target), sel);
        }
    }
    bool isClass = class_isMetaClass(cls);
    fakeobjc::raiseFormat("NSInvalidArgumentException", "%c[%s %s]: unrecognized selector sent to %s %p",
                          isClass ? '+' : '-', class_getName(cls), sel_getName(sel), isClass ? "class" : "instance",
                          static_cast<void *>(self));
}

// One entry point: RECEIVER and SELECTOR are the frame offsets of the saved registers that hold
// them. The frame keeps the six integer argument registers, %rax (the vector-register count of a
// variadic call) and %xmm0-7; the CFI lets an exception raised above unwind through it.
#define FAKESDK_FORWARD_ENTRY(NAME, RECEIVER, SELECTOR, STRET)                                         \
    asm(".text\n"                                                                                       \
        ".globl " NAME "\n"                                                                             \
        ".type " NAME ", @function\n"                                                                   \
        ".p2align 4\n" NAME ":\n"                                                                       \
        ".cfi_startproc\n"                                                                              \
        "pushq %rbp\n"                                                                                  \
        ".cfi_def_cfa_offset 16\n"                                                                      \
        ".cfi_offset %rbp, -16\n"                                                                       \
        "movq %rsp, %rbp\n"                                                                             \
        ".cfi_def_cfa_register %rbp\n"                                                                  \
        "subq $192, %rsp\n"                                                                             \
        "movq %rdi, 0(%rsp)\n"                                                                          \
        "movq %rsi, 8(%rsp)\n"                                                                          \
        "movq %rdx, 16(%rsp)\n"                                                                         \
        "movq %rcx, 24(%rsp)\n"                                                                         \
        "movq %r8, 32(%rsp)\n"                                                                          \
        "movq %r9, 40(%rsp)\n"                                                                          \
        "movq %rax, 48(%rsp)\n"                                                                         \
        "movdqa %xmm0, 64(%rsp)\n"                                                                      \
        "movdqa %xmm1, 80(%rsp)\n"                                                                      \
        "movdqa %xmm2, 96(%rsp)\n"                                                                      \
        "movdqa %xmm3, 112(%rsp)\n"                                                                     \
        "movdqa %xmm4, 128(%rsp)\n"                                                                     \
        "movdqa %xmm5, 144(%rsp)\n"                                                                     \
        "movdqa %xmm6, 160(%rsp)\n"                                                                     \
        "movdqa %xmm7, 176(%rsp)\n"                                                                     \
        "leaq " RECEIVER "(%rsp), %rdi\n"                                                               \
        "movq " SELECTOR "(%rsp), %rsi\n"                                                               \
        "movl $" STRET ", %edx\n"                                                                       \
        "call fakesdk_forwardingTarget@PLT\n"                                                           \
        "movq %rax, %r11\n"                                                                             \
        "movq 0(%rsp), %rdi\n"                                                                          \
        "movq 8(%rsp), %rsi\n"                                                                          \
        "movq 16(%rsp), %rdx\n"                                                                         \
        "movq 24(%rsp), %rcx\n"                                                                         \
        "movq 32(%rsp), %r8\n"                                                                          \
        "movq 40(%rsp), %r9\n"                                                                          \
        "movq 48(%rsp), %rax\n"                                                                         \
        "movdqa 64(%rsp), %xmm0\n"                                                                      \
        "movdqa 80(%rsp), %xmm1\n"                                                                      \
        "movdqa 96(%rsp), %xmm2\n"                                                                      \
        "movdqa 112(%rsp), %xmm3\n"                                                                     \
        "movdqa 128(%rsp), %xmm4\n"                                                                     \
        "movdqa 144(%rsp), %xmm5\n"                                                                     \
        "movdqa 160(%rsp), %xmm6\n"                                                                     \
        "movdqa 176(%rsp), %xmm7\n"                                                                     \
        "leave\n"                                                                                       \
        ".cfi_def_cfa %rsp, 8\n"                                                                        \
        "jmp *%r11\n"                                                                                   \
        ".cfi_endproc\n"                                                                                \
        ".size " NAME ", . - " NAME "\n")

FAKESDK_FORWARD_ENTRY("_objc_msgForward", "0", "8", "0");
FAKESDK_FORWARD_ENTRY("_objc_msgForward_stret", "8", "16", "1");
