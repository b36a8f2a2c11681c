// What the forwarding entry points need from the rest of the runtime.
#pragma once

#include <objc/objc.h>

namespace fakeobjc {
// Whether a pointer is a registered selector, without reading through it.
bool isSelector(const void *candidate);
}
