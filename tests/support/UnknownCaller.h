// Sends a message from code that lies in no loaded image, as JIT-compiled code does: a few bytes
// of machine code in an anonymous mapping call the method's implementation and return, so the
// return address that the implementation sees has no image path.
#pragma once

#include <objc/runtime.h>

#include <sys/mman.h>

#include <cstring>
#include <optional>

namespace zerlan::testing {

// The implementation's result (it takes at most one object argument), or nothing where no such
// code can run here: another architecture, or a system that refuses executable mappings.
inline std::optional<id> sendFromUnknownCaller(id receiver, SEL selector, id argument = nullptr)
{
#if defined(__x86_64__)
    IMP target = class_getMethodImplementation(object_getClass(receiver), selector);
    unsigned char code[] = {
        0x48, 0x83, 0xEC, 0x08,             // sub rsp, 8 (keep the call aligned)
        0x48, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, // mov rax, target
        0xFF, 0xD0,                         // call rax (the arguments' registers are untouched)
        0x48, 0x83, 0xC4, 0x08,             // add rsp, 8
        0xC3,                               // ret
    };
    std::memcpy(code + 6, &target, sizeof target);
    void *page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED)
        return std::nullopt;
    std::memcpy(page, code, sizeof code);
    id result = reinterpret_cast<id (*)(id, SEL, id)>(page)(receiver, selector, argument);
    munmap(page, 4096);
    return result;
#else
    (void)receiver, (void)selector, (void)argument;
    return std::nullopt;
#endif
}

} // namespace zerlan::testing
