// Data symbols whose address is all that matters. Defined apart from <dispatch/dispatch.h>,
// which declares them as structs that only libdispatch may construct.

// DISPATCH_QUEUE_CONCURRENT is the address of this attribute object.
extern "C" {
__attribute__((visibility("default"), aligned(16))) unsigned char _dispatch_queue_attr_concurrent[16] = {};
}
