// Installation as a loaded library leaves it: every row exchanged in place, the zerlan_ selectors
// reaching the framework, a missing method skipping only its own row, the debug switch fixed.
#include "inject/Diagnostics.h"
#include "inject/Install.h"
#include "inject/Registry.h"

#include <gtest/gtest.h>

#include <cxxabi.h>
#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

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

// The symbol that an implementation's address lies in, demangled without its arguments.
std::string functionAt(IMP implementation)
{
    Dl_info info{};
    if (!dladdr(reinterpret_cast<void *>(implementation), &info) || !info.dli_sname)
        return "<unknown>";
    char *plain = abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, nullptr);
    std::string name = plain ? plain : info.dli_sname;
    std::free(plain);
    return name.substr(0, name.find('('));
}

TEST(InstallTest, TheTableIsExactlyTheInterceptedMethodsInInstallOrder)
{
    // Per class in install order, its selectors in order; "+" marks a class method, "!" the added
    // dismissal, which must come before presentation is exchanged. Each row names the replacement
    // written for its own selector: zerlan_ and the selector with its colons as underscores.
    const std::pair<const char *, const char *> expected[] = {
        {"AVCaptureDevice", "+defaultDeviceWithMediaType: +deviceWithUniqueID: localizedName uniqueID position deviceType "
                            "formats activeFormat setActiveFormat: hasFlash hasTorch isFocusPointOfInterestSupported "
                            "isExposurePointOfInterestSupported lockForConfiguration: unlockForConfiguration"},
        {"AVCaptureDeviceDiscoverySession", "devices"},
        {"AVCaptureDeviceInput", "initWithDevice:error: ports"},
        {"AVCaptureConnection", "initWithInputPorts:output: isVideoOrientationSupported isVideoMirroringSupported "
                                "videoOrientation setVideoOrientation:"},
        {"AVCaptureOutput", "connections connectionWithMediaType:"},
        {"AVCaptureSession", "canAddInput: addInput: canAddOutput: addOutput: startRunning stopRunning isRunning "
                             "addInputWithNoConnections: addOutputWithNoConnections: addConnection: canAddConnection: "
                             "canSetSessionPreset: inputs outputs removeInput: removeOutput:"},
        {"AVCaptureVideoDataOutput", "setSampleBufferDelegate:queue: recommendedVideoSettingsForAssetWriterWithOutputFileType:"},
        {"AVCapturePhotoOutput", "capturePhotoWithSettings:delegate:"},
        {"AVCaptureMetadataOutput", "availableMetadataObjectTypes setMetadataObjectTypes: setMetadataObjectsDelegate:queue:"},
        {"AVCaptureVideoPreviewLayer", "setSession:"},
        {"UIImagePickerController", "+isSourceTypeAvailable: +isCameraDeviceAvailable: +availableMediaTypesForSourceType: "
                                    "+availableCaptureModesForCameraDevice: +isFlashAvailableForCameraDevice: setSourceType: "
                                    "sourceType setCameraDevice: cameraDevice setCameraCaptureMode: cameraCaptureMode "
                                    "!dismissViewControllerAnimated:completion:"},
        {"UIViewController", "presentViewController:animated:completion:"},
    };
    std::vector<std::string> want, have;
    for (const auto &[className, selectors] : expected) {
        std::istringstream words(selectors);
        for (std::string word; words >> word;)
            want.push_back(std::string(className) + " " + word);
    }
    for (const ZerlanExchangeRow &row : ZerlanExchangeTable()) {
        const char *mark = row.kind == ZerlanRowKind::classMethod ? "+" : row.kind == ZerlanRowKind::added ? "!" : "";
        have.push_back(std::string(row.className) + " " + mark + row.selector);
        std::string replacement = std::string("zerlan_") + row.selector;
        std::replace(replacement.begin(), replacement.end(), ':', '_');
        if (replacement.back() == '_')
            replacement.pop_back();
        if (row.kind == ZerlanRowKind::added)
            replacement = "ZerlanImagePickerDismiss";
        EXPECT_EQ(replacement, functionAt(row.implementation)) << row.selector;
        EXPECT_STREQ(row.kind == ZerlanRowKind::added ? "UIViewController" : nullptr, row.typesFrom) << row.selector;
    }
    EXPECT_EQ(want, have);
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
}

} // namespace
