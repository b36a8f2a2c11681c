// Installation as a loaded library leaves it: every row exchanged in place, the zerlan_ selectors
// reaching the framework, a missing method skipping only its own row, the debug switch fixed.
#include "inject/Diagnostics.h"
#include "inject/Install.h"
#include "inject/Registry.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

using namespace zerlan::objc;

namespace {

Method lookUp(const ZerlanExchangeRow &row, const std::string &selector)
{
    Class cls = objc_getClass(row.className);
    SEL s = sel_registerName(selector.c_str());
    return row.kind == ZerlanRowKind::classMethod ? class_getClassMethod(cls, s) : class_getInstanceMethod(cls, s);
}

TEST(InstallTest, EveryRowIsExchangedInPlace)
{
    ASSERT_GE(ZerlanExchangeTable().size(), 16u);
    for (const ZerlanExchangeRow &row : ZerlanExchangeTable()) {
        if (row.kind == ZerlanRowKind::added) {
            // The class now has a method of its own, typed as the one it used to inherit.
            SEL selector = sel_registerName(row.selector);
            Method own = class_getInstanceMethod(objc_getClass(row.className), selector);
            Method inherited = class_getInstanceMethod(objc_getClass(row.typesFrom), selector);
            ASSERT_TRUE(own && inherited) << row.className << " " << row.selector;
            EXPECT_EQ(row.implementation, method_getImplementation(own)) << row.selector;
            EXPECT_NE(row.implementation, method_getImplementation(inherited)) << row.typesFrom << " keeps its own";
            EXPECT_STREQ(method_getTypeEncoding(inherited), method_getTypeEncoding(own)) << row.selector;
            continue;
        }
        Method framework = lookUp(row, row.selector);
        Method original = lookUp(row, std::string("zerlan_") + row.selector);
        ASSERT_NE(nullptr, framework) << row.className << " " << row.selector;
        ASSERT_NE(nullptr, original) << row.className << " zerlan_" << row.selector;
        EXPECT_EQ(row.implementation, method_getImplementation(framework)) << row.selector;
        EXPECT_NE(row.implementation, method_getImplementation(original)) << row.selector;
        EXPECT_STREQ(method_getTypeEncoding(framework), method_getTypeEncoding(original)) << row.selector;
    }
    EXPECT_NE(nullptr, gRetainedFakeObjects) << "the retained-object list exists from load on";
}

TEST(InstallTest, TheTableStartsWithTheDeviceRowsInOrder)
{
    const char *expected[] = {"defaultDeviceWithMediaType:", "deviceWithUniqueID:", "localizedName", "uniqueID",
                              "position", "deviceType", "formats", "activeFormat", "setActiveFormat:", "hasFlash",
                              "hasTorch", "isFocusPointOfInterestSupported", "isExposurePointOfInterestSupported",
                              "lockForConfiguration:", "unlockForConfiguration", "devices"};
    auto table = ZerlanExchangeTable();
    for (size_t i = 0; i < std::size(expected); ++i)
        EXPECT_STREQ(expected[i], table[i].selector) << "row " << i + 1;
}

TEST(InstallTest, ThePickerRowsCloseTheTableWithTheDismissalAddedBeforePresentation)
{
    struct Expected {
        const char *className, *selector;
        ZerlanRowKind kind;
    } const expected[] = {
        {"UIImagePickerController", "isSourceTypeAvailable:", ZerlanRowKind::classMethod},
        {"UIImagePickerController", "isCameraDeviceAvailable:", ZerlanRowKind::classMethod},
        {"UIImagePickerController", "availableMediaTypesForSourceType:", ZerlanRowKind::classMethod},
        {"UIImagePickerController", "availableCaptureModesForCameraDevice:", ZerlanRowKind::classMethod},
        {"UIImagePickerController", "isFlashAvailableForCameraDevice:", ZerlanRowKind::classMethod},
        {"UIImagePickerController", "setSourceType:", ZerlanRowKind::instance},
        {"UIImagePickerController", "sourceType", ZerlanRowKind::instance},
        {"UIImagePickerController", "setCameraDevice:", ZerlanRowKind::instance},
        {"UIImagePickerController", "cameraDevice", ZerlanRowKind::instance},
        {"UIImagePickerController", "setCameraCaptureMode:", ZerlanRowKind::instance},
        {"UIImagePickerController", "cameraCaptureMode", ZerlanRowKind::instance},
        {"UIImagePickerController", "dismissViewControllerAnimated:completion:", ZerlanRowKind::added},
        {"UIViewController", "presentViewController:animated:completion:", ZerlanRowKind::instance},
    };
    auto table = ZerlanExchangeTable();
    ASSERT_EQ(48 + std::size(expected), table.size());
    for (size_t i = 0; i < std::size(expected); ++i) {
        const ZerlanExchangeRow &row = table[48 + i];
        SCOPED_TRACE(testing::Message() << "row " << 49 + i);
        EXPECT_STREQ(expected[i].className, row.className);
        EXPECT_STREQ(expected[i].selector, row.selector);
        EXPECT_EQ(expected[i].kind, row.kind);
    }
}

long replaced(id, SEL) { return 42; }
long original(id, SEL) { return 7; }

TEST(InstallTest, AMissingFrameworkMethodSkipsOnlyItsRow)
{
    Class cls = objc_allocateClassPair(objc_getClass("NSObject"), "TestPartialFramework", 0);
    class_addMethod(cls, sel_registerName("present"), imp(original), "q@:");
    objc_registerClassPair(cls);
    const ZerlanExchangeRow rows[] = {
        {"TestPartialFramework", "missing", ZerlanRowKind::instance, imp(replaced)},
        {"TestPartialFramework", "present", ZerlanRowKind::instance, imp(replaced)},
        {"NoSuchFrameworkClass", "present", ZerlanRowKind::instance, imp(replaced)},
    };
    for (const auto &row : rows)
        ZerlanInstallRow(row);
    EXPECT_EQ(nullptr, class_getInstanceMethod(cls, sel_registerName("missing")));
    EXPECT_EQ(nullptr, class_getInstanceMethod(cls, sel_registerName("zerlan_missing")))
        << "no replacement is added where there is nothing to replace";
    id object = send<id>(reinterpret_cast<id>(cls), sel<"new">());
    EXPECT_EQ(42, send<long>(object, sel<"present">()));
    EXPECT_EQ(7, send<long>(object, sel<"zerlan_present">()));
    objc_release(object);
}

TEST(InstallTest, ExchangeNeedsBothMethods)
{
    Class cls = objc_allocateClassPair(objc_getClass("NSObject"), "TestExchangeBoth", 0);
    class_addMethod(cls, sel_registerName("a"), imp(original), "q@:");
    objc_registerClassPair(cls);
    ZerlanExchange(cls, sel_registerName("a"), sel_registerName("zerlan_a"));
    EXPECT_EQ(imp(original), method_getImplementation(class_getInstanceMethod(cls, sel_registerName("a"))));
}

TEST(DiagnosticsTest, TheSwitchIsReadOnce)
{
    bool before = ZerlanDebugEnabled();
    if (before)
        unsetenv("ZERLAN_DEBUG");
    else
        setenv("ZERLAN_DEBUG", "", 1);
    EXPECT_EQ(before, ZerlanDebugEnabled()) << "later changes to the environment have no effect";
    EXPECT_EQ(std::getenv("ZERLAN_DEBUG") == nullptr, before) << "this process started the other way";
}

} // namespace
