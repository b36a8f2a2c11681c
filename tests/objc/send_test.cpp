// lib/objc against the runtime: messages whose struct result x86-64 returns through memory
// (CGRect, CMTime) or in registers (CGPoint) reach the right forwarding entry, so a forwarding
// object hands them on intact and an unimplemented one raises instead of crashing; ClassBuilder
// refuses a missing superclass; string() answers nil for a null pointer without sending.
#include "objc/Frameworks.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

using namespace zerlan::objc;

CGRect frame(id, SEL)
{
    return CGRectMake(1, 2, 3, 4);
}

CMTime duration(id, SEL)
{
    return CMTimeMakeWithEpoch(7, 600, 9);
}

CGPoint origin(id, SEL)
{
    return CGPointMake(5, 6);
}

// Arguments in integer and vector registers must survive the detour through forwarding.
CGRect frameScaledBy(id, SEL, double factor, long offset)
{
    return CGRectMake(1 * factor + offset, 2 * factor + offset, 3 * factor, 4 * factor);
}

id gTarget;

id forwardingTarget(id, SEL, SEL)
{
    return gTarget;
}

Class declare(const char *name, const char *superclass, void (*add)(ClassBuilder &))
{
    if (Class existing = objc_getClass(name))
        return existing;
    ClassBuilder builder(name, superclass);
    add(builder);
    return builder.registerClass();
}

class SendTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        target_ = declare("ZerlanTestGeometry", "NSObject", [](ClassBuilder &b) {
            b.method(sel<"frame">(), imp(frame), "{CGRect={CGPoint=dd}{CGSize=dd}}16@0:8")
                .method(sel<"duration">(), imp(duration), "{?=qiIq}16@0:8")
                .method(sel<"origin">(), imp(origin), "{CGPoint=dd}16@0:8")
                .method(sel<"frameScaledBy:offset:">(), imp(frameScaledBy), "{CGRect={CGPoint=dd}{CGSize=dd}}32@0:8d16q24");
        });
        forwarder_ = declare("ZerlanTestForwarder", "NSObject", [](ClassBuilder &b) {
            b.override(sel<"forwardingTargetForSelector:">(), imp(forwardingTarget));
        });
        child_ = declare("ZerlanTestForwarderChild", "ZerlanTestForwarder", [](ClassBuilder &) {});
        ASSERT_TRUE(target_ && forwarder_ && child_);
        gTarget = send<id>(reinterpret_cast<id>(target_), sel<"new">());
    }

    void TearDown() override { objc_release(std::exchange(gTarget, nil)); }

    static id make(Class cls) { return send<id>(reinterpret_cast<id>(cls), sel<"new">()); }

    Class target_ = nullptr;
    Class forwarder_ = nullptr;
    Class child_ = nullptr;
};

// Byte for byte (none of these structs has padding).
template <typename T>
bool same(const T &expected, const T &actual)
{
    return std::memcmp(&expected, &actual, sizeof expected) == 0;
}

TEST_F(SendTest, StructResultsComeBackIntactDirectAndForwarded)
{
    static_assert(sizeof(CGRect) == 32 && sizeof(CMTime) == 24 && sizeof(CGPoint) == 16,
                  "the cases straddle x86-64's 16-byte limit for results in registers");
    id forwarder = make(forwarder_);
    struct Case {
        const char *what;
        id receiver;
    } cases[] = {{"implemented", gTarget}, {"forwarded", forwarder}};
    for (const Case &c : cases) {
        EXPECT_TRUE(same(CGRectMake(1, 2, 3, 4), send<CGRect>(c.receiver, sel<"frame">()))) << c.what;
        EXPECT_TRUE(same(CMTimeMakeWithEpoch(7, 600, 9), send<CMTime>(c.receiver, sel<"duration">()))) << c.what;
        EXPECT_TRUE(same(CGPointMake(5, 6), send<CGPoint>(c.receiver, sel<"origin">()))) << c.what;
        EXPECT_TRUE(same(CGRectMake(12, 14, 6, 8), send<CGRect>(c.receiver, sel<"frameScaledBy:offset:">(), 2.0, 10L)))
            << c.what;
    }
    objc_release(forwarder);
}

TEST_F(SendTest, SuperSendsOfStructResultsForwardFromTheSuperclass)
{
    id child = make(child_);
    EXPECT_TRUE(same(CGRectMake(1, 2, 3, 4), sendSuper<CGRect>(child_, child, sel<"frame">()))) << "super frame";
    EXPECT_TRUE(same(CMTimeMakeWithEpoch(7, 600, 9), sendSuper<CMTime>(child_, child, sel<"duration">()))) << "super duration";
    objc_release(child);
}

TEST_F(SendTest, UnforwardedStructMessagesRaiseUnrecognisedSelector)
{
    gTarget = (objc_release(gTarget), nil); // the forwarder now answers nil: no target
    id forwarder = make(forwarder_);
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<void *>(forwarder));
    try {
        send<CGRect>(forwarder, sel<"frame">());
        ADD_FAILURE() << "no exception";
    } catch (id exception) {
        EXPECT_EQ(std::string("-[ZerlanTestForwarder frame]: unrecognized selector sent to instance ") + address,
                  utf8(send<id>(exception, sel<"reason">())));
    }
    CGRect nilResult = send<CGRect>(nil, sel<"frame">());
    EXPECT_TRUE(same(CGRect{}, nilResult)) << "a message to nil returns zero";
    objc_release(forwarder);
}

TEST(ClassBuilderTest, AMissingSuperclassDeclaresNothing)
{
    ClassBuilder builder("ZerlanTestOrphan", "ZerlanNoSuchSuperclass");
    EXPECT_EQ(nullptr, builder.cls());
    builder.method(sel<"frame">(), imp(frame), "{CGRect={CGPoint=dd}{CGSize=dd}}16@0:8").objectIvar("_state");
    EXPECT_EQ(nullptr, builder.registerClass());
    EXPECT_EQ(nullptr, objc_getClass("ZerlanTestOrphan")) << "no root class registered in its place";
    ClassBuilder again("ZerlanTestOrphan", "NSObject");
    EXPECT_NE(nullptr, again.registerClass()) << "the name stays free";
}

TEST(StringTest, NullGivesNilWithoutSendingAndTextRoundTrips)
{
    AutoreleasePool pool;
    EXPECT_EQ(nil, string(nullptr));
    EXPECT_STREQ("Zerlan Camera", utf8(string("Zerlan Camera")));
    EXPECT_STREQ("", utf8(string("")));
}

} // namespace
