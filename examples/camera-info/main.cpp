// camera-info: what an app's first look for a camera finds. It asks for the default video device,
// reopens the injected camera by its unique ID and runs a discovery session for back wide-angle
// cameras, then prints one JSON object. Without ZerlanInject a camera-less Simulator finds nothing.
#include "objc/Frameworks.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>

using namespace zerlan::objc;

namespace {

std::string text(id string)
{
    const char *chars = utf8(string);
    return chars ? chars : "";
}

std::string fourCharCode(FourCharCode code)
{
    std::string out;
    for (int shift = 24; shift >= 0; shift -= 8)
        out += static_cast<char>((code >> shift) & 0xff);
    return out;
}

nlohmann::ordered_json describe(id device)
{
    if (!device)
        return nullptr;
    id formats = send<id>(device, sel<"formats">());
    nlohmann::ordered_json out = {
        {"name", text(send<id>(device, sel<"localizedName">()))},
        {"uniqueID", text(send<id>(device, sel<"uniqueID">()))},
        {"position", send<long>(device, sel<"position">())},
        {"deviceType", text(send<id>(device, sel<"deviceType">()))},
        {"formats", count(formats)},
        {"width", nullptr},
        {"height", nullptr},
        {"subtype", nullptr},
    };
    id format = send<id>(device, sel<"activeFormat">());
    auto description = send<CMFormatDescriptionRef>(format, sel<"formatDescription">());
    if (description) {
        CMVideoDimensions size = CMVideoFormatDescriptionGetDimensions(description);
        out["width"] = size.width;
        out["height"] = size.height;
        out["subtype"] = fourCharCode(CMFormatDescriptionGetMediaSubType(description));
    }
    return out;
}

constexpr const char *kUsage =
    "usage: camera-info\n"
    "\n"
    "Looks for a camera as an app does at start: the default video device, the device with the\n"
    "injected camera's unique ID, and a discovery session for back wide-angle cameras. Prints one\n"
    "JSON object: defaultDevice (name, uniqueID, position, deviceType, formats, width, height,\n"
    "subtype; null when there is none), byUniqueID, discovered.\n"
    "Exit status: 0, also when no camera is found (the JSON says so); 2 for a bad command line.\n";

} // namespace

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        std::fprintf(stderr, "camera-info: unknown argument %s (try --help)\n", arg.c_str());
        return 2;
    }
    AutoreleasePool pool;
    id deviceClass = cls("AVCaptureDevice");
    id device = send<id>(deviceClass, sel<"defaultDeviceWithMediaType:">(), AVMediaTypeVideo);
    id reopened = send<id>(deviceClass, sel<"deviceWithUniqueID:">(), string("com.zerlan.injected-camera"));

    constexpr long kBack = 1;
    id discovery = send<id>(cls("AVCaptureDeviceDiscoverySession"),
                            sel<"discoverySessionWithDeviceTypes:mediaType:position:">(),
                            arrayWithObject(AVCaptureDeviceTypeBuiltInWideAngleCamera), AVMediaTypeVideo, kBack);
    id discovered = send<id>(discovery, sel<"devices">());

    nlohmann::ordered_json out = {
        {"defaultDevice", describe(device)},
        {"byUniqueID", reopened != nil},
        {"discovered", count(discovered)},
    };
    std::printf("%s\n", out.dump().c_str());
    return 0;
}
