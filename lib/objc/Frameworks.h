// The frameworks' exported constants and C functions that the library uses, declared once. They
// are Objective-C objects (NSString *const in Apple's headers), which C++ sees as id.
#pragma once

#include "Runtime.h"

#include <CoreMedia/CoreMedia.h>
#include <CoreVideo/CoreVideo.h>
#include <CoreGraphics/CoreGraphics.h>
#include <dispatch/dispatch.h>

extern "C" {
// Foundation
void NSLog(id format, ...);
id NSTemporaryDirectory(void);

// AVFoundation
extern id const AVMediaTypeVideo;
extern id const AVMediaTypeAudio;
extern id const AVCaptureDeviceTypeBuiltInWideAngleCamera;
extern id const AVMetadataObjectTypeQRCode;
extern id const AVVideoCodecKey;
extern id const AVVideoCodecTypeH264;
extern id const AVVideoWidthKey;
extern id const AVVideoHeightKey;
extern id const AVVideoCompressionPropertiesKey;
extern id const AVVideoAverageBitRateKey;
extern id const AVFileTypeMPEG4;

// CoreImage
extern id const CIDetectorTypeQRCode;
extern id const CIDetectorAccuracy;
extern id const CIDetectorAccuracyHigh;

// QuartzCore
extern id const kCAGravityResizeAspectFill;

// UIKit
extern id const UIImagePickerControllerMediaType;
extern id const UIImagePickerControllerOriginalImage;
extern id const UIImagePickerControllerMediaURL;
extern const CGFloat UIFontWeightMedium;
extern const CGFloat UIFontWeightSemibold;
}

namespace zerlan::objc {

// NSString from UTF-8 (+0, autoreleased); nil for a null pointer, which is never sent on:
// stringWithUTF8String: raises for NULL.
inline id string(const char *utf8)
{
    return utf8 ? send<id>(cls("NSString"), sel<"stringWithUTF8String:">(), utf8) : nil;
}

inline const char *utf8(id string)
{
    return send<const char *>(string, sel<"UTF8String">());
}

inline bool isEqualToString(id a, id b)
{
    return a && b && send<BOOL>(a, sel<"isEqualToString:">(), b);
}

inline id number(long value)
{
    return send<id>(cls("NSNumber"), sel<"numberWithInteger:">(), value);
}

inline long integerValue(id number)
{
    return send<long>(number, sel<"integerValue">());
}

// A one-element immutable array (+0, autoreleased).
inline id arrayWithObject(id object)
{
    return send<id>(cls("NSArray"), sel<"arrayWithObject:">(), object);
}

inline unsigned long count(id collection)
{
    return send<unsigned long>(collection, sel<"count">());
}

inline id objectAtIndex(id array, unsigned long index)
{
    return send<id>(array, sel<"objectAtIndex:">(), index);
}

// Sends alloc then the given initialiser; the result is owned (+1).
template <FixedString Init, typename... Args>
inline Strong<> allocInit(const char *className, Args... args)
{
    id object = send<id>(cls(className), sel<"alloc">());
    return Strong<>::adopt(send<id>(object, sel<Init>(), args...));
}

} // namespace zerlan::objc
