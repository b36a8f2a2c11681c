// The runtime behaviour the library relies on: method exchange as seen through inheritance,
// class_addMethod's refusal, bare instances, associations and their lifetimes, zeroing weak
// references, recursive object locks across threads, autorelease pools, unrecognised selectors and
// forwarding in both of x86-64's conventions (results in registers and through memory).
#include "FakesdkTestSupport.h"

#include <fakesdk/objc_np.h>
#include <objc/message.h>
#include <objc/objc-sync.h>
#include <objc/runtime.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace fakesdk_test;

id alloc(Class cls)
{
    return send(reinterpret_cast<id>(cls), "alloc");
}

long answerOne(id, SEL) { return 1; }
long answerTwo(id, SEL) { return 2; }
long answerThree(id, SEL) { return 3; }

// A fresh Base <- Derived pair per test, so exchanges never leak between tests.
class RuntimeTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        static int counter;
        std::string suffix = std::to_string(++counter);
        base_ = objc_allocateClassPair(objc_getClass("NSObject"), ("TestBase" + suffix).c_str(), 0);
        class_addMethod(base_, sel_registerName("value"), reinterpret_cast<IMP>(answerOne), "q@:");
        class_addMethod(base_, sel_registerName("other"), reinterpret_cast<IMP>(answerTwo), "q@:");
        objc_registerClassPair(base_);
        derived_ = objc_allocateClassPair(base_, ("TestDerived" + suffix).c_str(), 0);
        objc_registerClassPair(derived_);
    }

    Class base_ = nullptr;
    Class derived_ = nullptr;
};

TEST_F(RuntimeTest, ExchangeOnAnInheritedMethodChangesEveryClassThatInheritsIt)
{
    id instance = alloc(derived_);
    Method value = class_getInstanceMethod(derived_, sel_registerName("value"));
    Method other = class_getInstanceMethod(derived_, sel_registerName("other"));
    ASSERT_EQ(value, class_getInstanceMethod(base_, sel_registerName("value"))) << "lookup must find the inherited record";
    method_exchangeImplementations(value, other);
    EXPECT_EQ(2, send<long>(instance, "value"));
    EXPECT_EQ(1, send<long>(instance, "other"));
    id baseInstance = alloc(base_);
    EXPECT_EQ(2, send<long>(baseInstance, "value")) << "the superclass sees the same swap";
    objc_release(instance);
    objc_release(baseInstance);
}

TEST_F(RuntimeTest, AddMethodRefusesOnlyWhatTheClassItselfDefines)
{
    SEL value = sel_registerName("value");
    EXPECT_FALSE(class_addMethod(base_, value, reinterpret_cast<IMP>(answerThree), "q@:"));
    EXPECT_TRUE(class_addMethod(derived_, value, reinterpret_cast<IMP>(answerThree), "q@:")) << "an override is allowed";
    id instance = alloc(derived_);
    EXPECT_EQ(3, send<long>(instance, "value"));
    EXPECT_STREQ("q@:", method_getTypeEncoding(class_getInstanceMethod(derived_, value)));
    EXPECT_FALSE(class_addMethod(derived_, value, reinterpret_cast<IMP>(answerOne), "q@:"));
    objc_release(instance);
}

TEST_F(RuntimeTest, ClassMethodsLiveOnTheMetaclassAndFollowInheritance)
{
    Class meta = object_getClass(reinterpret_cast<id>(base_));
    ASSERT_TRUE(class_isMetaClass(meta));
    class_addMethod(meta, sel_registerName("make"), reinterpret_cast<IMP>(answerThree), "q@:");
    EXPECT_NE(nullptr, class_getClassMethod(derived_, sel_registerName("make")));
    EXPECT_EQ(nullptr, class_getInstanceMethod(derived_, sel_registerName("make")));
    EXPECT_EQ(3, send<long>(reinterpret_cast<id>(derived_), "make"));
    EXPECT_EQ(nullptr, objc_allocateClassPair(base_, class_getName(base_), 0)) << "names are unique";
}

TEST_F(RuntimeTest, CreateInstanceIsZeroFilledRetainedOnceAndRunsNoInitialiser)
{
    Class cls = objc_allocateClassPair(base_, "TestWithIvars", 0);
    ASSERT_TRUE(class_addIvar(cls, "_a", sizeof(long), 3, "q"));
    ASSERT_TRUE(class_addIvar(cls, "_b", sizeof(char), 0, "c"));
    ASSERT_FALSE(class_addIvar(cls, "_a", sizeof(long), 3, "q")) << "duplicate ivar";
    objc_registerClassPair(cls);
    ASSERT_FALSE(class_addIvar(cls, "_late", sizeof(long), 3, "q")) << "no ivars after registration";
    id object = class_createInstance(cls, 16);
    EXPECT_EQ(1, objc_retainCount_np(object));
    EXPECT_EQ(cls, object_getClass(object));
    auto *a = reinterpret_cast<long *>(reinterpret_cast<char *>(object) + ivar_getOffset(class_getInstanceVariable(cls, "_a")));
    EXPECT_EQ(0, *a);
    EXPECT_EQ(0u, ivar_getOffset(class_getInstanceVariable(cls, "_a")) % alignof(long));
    objc_release(object);
}

TEST_F(RuntimeTest, UnimplementedSelectorsRaiseWithApplesReason)
{
    id instance = alloc(derived_);
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<void *>(instance));
    EXPECT_EQ(raised([&] { send<long>(instance, "missing:", 1L); }),
              Raised("NSInvalidArgumentException", std::string("-[") + class_getName(derived_) +
                                                       " missing:]: unrecognized selector sent to instance " + address));
    EXPECT_EQ(0u, raised([&] { send<id>(reinterpret_cast<id>(derived_), "missingClassMethod"); })
                      .second.find(std::string("+[") + class_getName(derived_) +
                                   " missingClassMethod]: unrecognized selector sent to class 0x"));
    EXPECT_EQ(1, send<long>(instance, "value")) << "the object is unharmed";
    objc_release(instance);
}

// A result that x86-64 returns through memory (over 16 bytes), as CGRect and CMTime are.
struct Wide {
    double v[4];
};

Wide wideValue(id, SEL)
{
    return {{1, 2, 3, 4}};
}

// Every argument register and then the stack: what forwarding must pass on untouched.
double sumOfMany(id, SEL, long a, long b, long c, long d, long e, long f, double x0, double x1, double x2, double x3,
                 double x4, double x5, double x6, double x7, double x8)
{
    return a + b + c + d + e + f + x0 + x1 + x2 + x3 + x4 + x5 + x6 + x7 + x8;
}

id gForwardTarget;

// Free to use every argument register, as any real implementation is: forwarding must have kept
// the message's arguments elsewhere.
id forwardToTarget(id, SEL, SEL)
{
    asm volatile("xorl %%edi, %%edi\n xorl %%esi, %%esi\n xorl %%edx, %%edx\n xorl %%ecx, %%ecx\n"
                 "xorl %%r8d, %%r8d\n xorl %%r9d, %%r9d\n pxor %%xmm0, %%xmm0\n pxor %%xmm1, %%xmm1\n"
                 "pxor %%xmm2, %%xmm2\n pxor %%xmm3, %%xmm3\n pxor %%xmm4, %%xmm4\n pxor %%xmm5, %%xmm5\n"
                 "pxor %%xmm6, %%xmm6\n pxor %%xmm7, %%xmm7"
                 :
                 :
                 : "rdi", "rsi", "rdx", "rcx", "r8", "r9", "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6",
                   "xmm7");
    return gForwardTarget;
}

TEST_F(RuntimeTest, ForwardingTargetGetsTheMessageInEitherConvention)
{
    class_addMethod(base_, sel_registerName("wide"), reinterpret_cast<IMP>(wideValue), "{Wide=[4d]}16@0:8");
    class_addMethod(base_, sel_registerName("sumOfMany"), reinterpret_cast<IMP>(sumOfMany), "d@:qqqqqqddddddddd");
    std::string name = std::string("TestForwarderOf") + class_getName(base_);
    Class forwarder = objc_allocateClassPair(objc_getClass("NSObject"), name.c_str(), 0);
    class_addMethod(forwarder, sel_registerName("forwardingTargetForSelector:"), reinterpret_cast<IMP>(forwardToTarget),
                    "@@::");
    objc_registerClassPair(forwarder);
    gForwardTarget = alloc(derived_);
    id instance = alloc(forwarder);
    SEL wide = sel_registerName("wide");
    Wide result = reinterpret_cast<Wide (*)(id, SEL)>(class_getMethodImplementation_stret(forwarder, wide))(instance, wide);
    EXPECT_EQ(1, result.v[0]);
    EXPECT_EQ(4, result.v[3]);
    SEL many = sel_registerName("sumOfMany");
    double sum = reinterpret_cast<double (*)(id, SEL, long, long, long, long, long, long, double, double, double, double,
                                             double, double, double, double, double)>(
        class_getMethodImplementation(forwarder, many))(instance, many, 101, 202, 303, 404, 505, 606, 0.5, 1, 2, 3, 4, 5, 6, 7, 100);
    EXPECT_EQ(2121 + 28.5 + 100, sum);

    gForwardTarget = (objc_release(gForwardTarget), nil);
    EXPECT_EQ(0u, raised([&] {
                      reinterpret_cast<Wide (*)(id, SEL)>(class_getMethodImplementation_stret(forwarder, wide))(instance, wide);
                  }).second.find(std::string("-[") + class_getName(forwarder) +
                                 " wide]: unrecognized selector sent to instance 0x"))
        << "once the target is nil";
    objc_release(instance);
}

// A missing selector's lookup gives the forwarding entry of the convention asked for; a method
// found, the same implementation in either.
TEST_F(RuntimeTest, ForwardingEntryCalledInTheOtherConventionAborts)
{
    SEL value = sel_registerName("value");
    EXPECT_EQ(reinterpret_cast<IMP>(answerOne), class_getMethodImplementation_stret(derived_, value));
    EXPECT_EQ(nullptr, class_getMethodImplementation_stret(nullptr, value));
    id instance = alloc(derived_);
    SEL missing = sel_registerName("missingWide");
    EXPECT_DEATH(reinterpret_cast<Wide (*)(id, SEL)>(class_getMethodImplementation(derived_, missing))(instance, missing),
                 "NSForwarding: warning: selector .* does not match selector known to Objective C runtime");
    EXPECT_DEATH(reinterpret_cast<long (*)(id, SEL, long)>(class_getMethodImplementation_stret(derived_, missing))(
                     instance, missing, 7L),
                 "NSForwarding: warning: selector .* does not match selector known to Objective C runtime");
    objc_release(instance);
}

TEST(AssociationsTest, RetainedValuesDieWithTheirObjectAssignedOnesAreNotRetained)
{
    static const char retainedKey = 0, assignedKey = 0;
    long before = objc_liveObjects_np();
    id owner = alloc(objc_getClass("NSObject"));
    id retained = alloc(objc_getClass("NSObject"));
    id assigned = alloc(objc_getClass("NSObject"));
    objc_setAssociatedObject(owner, &retainedKey, retained, OBJC_ASSOCIATION_RETAIN_NONATOMIC);
    objc_setAssociatedObject(owner, &assignedKey, assigned, OBJC_ASSOCIATION_ASSIGN);
    EXPECT_EQ(2, objc_retainCount_np(retained));
    EXPECT_EQ(1, objc_retainCount_np(assigned));
    EXPECT_EQ(retained, objc_getAssociatedObject(owner, &retainedKey));
    EXPECT_EQ(nullptr, objc_getAssociatedObject(owner, &before)) << "other keys see nothing";

    // Replacing a retained value releases the old one; storing nil removes the association.
    id replacement = alloc(objc_getClass("NSObject"));
    objc_trackRetains_np(retained);
    objc_setAssociatedObject(owner, &retainedKey, replacement, OBJC_ASSOCIATION_RETAIN_NONATOMIC);
    long retains = 0, releases = 0;
    objc_retainCounts_np(retained, &retains, &releases);
    EXPECT_EQ(0, retains);
    EXPECT_EQ(1, releases);
    objc_setAssociatedObject(owner, &assignedKey, nullptr, OBJC_ASSOCIATION_ASSIGN);
    EXPECT_FALSE(objc_hasAssociation_np(owner, &assignedKey));

    objc_release(owner);
    EXPECT_EQ(1, objc_retainCount_np(replacement)) << "the dead owner released its retained value";
    objc_release(replacement);
    objc_release(retained);
    objc_release(assigned);
    EXPECT_EQ(before, objc_liveObjects_np());
}

TEST(WeakTest, SlotsZeroWhenTheObjectDiesAndLoadsNeverRevive)
{
    id object = alloc(objc_getClass("NSObject"));
    id first = nullptr, second = nullptr;
    objc_storeWeak(&first, object);
    objc_storeWeak(&second, object);
    id loaded = objc_loadWeakRetained(&first);
    EXPECT_EQ(object, loaded);
    EXPECT_EQ(2, objc_retainCount_np(object));
    objc_release(loaded);
    objc_release(object);
    EXPECT_EQ(nullptr, first);
    EXPECT_EQ(nullptr, objc_loadWeakRetained(&second));
    objc_storeWeak(&first, nullptr);
}

TEST(WeakTest, ConcurrentLoadsAndFinalReleaseAgree)
{
    // A load racing the last release either gets a live object or nil, never a dying one.
    for (int round = 0; round < 200; ++round) {
        id object = alloc(objc_getClass("NSObject"));
        id slot = nullptr;
        objc_storeWeak(&slot, object);
        std::atomic<bool> go{false};
        std::thread loader([&] {
            while (!go) {
            }
            if (id strong = objc_loadWeakRetained(&slot)) {
                EXPECT_GE(objc_retainCount_np(strong), 1);
                objc_release(strong);
            }
        });
        go = true;
        objc_release(object);
        loader.join();
        EXPECT_EQ(nullptr, slot);
    }
}

TEST(ObjectLockTest, RecursiveAndExclusiveAcrossThreads)
{
    id lock = alloc(objc_getClass("NSObject"));
    ASSERT_EQ(OBJC_SYNC_SUCCESS, objc_sync_enter(lock));
    ASSERT_EQ(OBJC_SYNC_SUCCESS, objc_sync_enter(lock)) << "recursive on the owning thread";
    int otherResult = 0;
    std::thread([&] { otherResult = objc_sync_exit(lock); }).join();
    EXPECT_EQ(OBJC_SYNC_NOT_OWNING_THREAD_ERROR, otherResult);
    EXPECT_EQ(OBJC_SYNC_SUCCESS, objc_sync_exit(lock));
    EXPECT_EQ(OBJC_SYNC_SUCCESS, objc_sync_exit(lock));

    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                objc_sync_enter(lock);
                long seen = counter;
                counter = seen + 1;
                objc_sync_exit(lock);
            }
        });
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(80000, counter);
    objc_release(lock);
}

TEST(AutoreleasePoolTest, PopReleasesOnlyWhatWasAddedSinceItsPush)
{
    id outer = alloc(objc_getClass("NSObject"));
    id inner = alloc(objc_getClass("NSObject"));
    objc_retain(outer);
    objc_retain(inner);
    void *outerPool = objc_autoreleasePoolPush();
    objc_autorelease(outer);
    void *innerPool = objc_autoreleasePoolPush();
    objc_autorelease(inner);
    objc_autoreleasePoolPop(innerPool);
    EXPECT_EQ(1, objc_retainCount_np(inner));
    EXPECT_EQ(2, objc_retainCount_np(outer));
    objc_autoreleasePoolPop(outerPool);
    EXPECT_EQ(1, objc_retainCount_np(outer));
    objc_release(outer);
    objc_release(inner);
}

} // namespace
