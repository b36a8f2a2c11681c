// AVFoundation's private helpers: type encodings of the structs its methods take, its exported
// constants, and the pieces the capture classes share across files.
#pragma once

#include "objc/define.h"
#include "objc/objects.h"

#include <CoreFoundation/CoreFoundation.h>
#include <CoreGraphics/CoreGraphics.h>
#include <CoreMedia/CoreMedia.h>
#include <CoreVideo/CoreVideo.h>

#include <mutex>
#include <utility>
#include <vector>

// Exported data and functions; everything else stays inside the image so that the message sends
// of these sources are made from code whose address lies in AVFoundation itself.
#define AVF_EXPORT extern "C" __attribute__((visibility("default")))

FAKEOBJC_ENCODING(CGRect, "{CGRect={CGPoint=dd}{CGSize=dd}}");
FAKEOBJC_ENCODING(CGPoint, "{CGPoint=dd}");
FAKEOBJC_ENCODING(CGSize, "{CGSize=dd}");
FAKEOBJC_ENCODING(CMTime, "{?=qiIq}");
FAKEOBJC_ENCODING(CMVideoDimensions, "{?=ii}");
FAKEOBJC_ENCODING(CMFormatDescriptionRef, "^{opaqueCMFormatDescription=}");
FAKEOBJC_ENCODING(CMSampleBufferRef, "^{opaqueCMSampleBuffer=}");
FAKEOBJC_ENCODING(CVPixelBufferRef, "^{__CVBuffer=}");
FAKEOBJC_ENCODING(CGImageRef, "^{CGImage=}");
FAKEOBJC_ENCODING(id *, "^@");

extern "C" {
extern id const AVMediaTypeVideo;
extern id const AVMediaTypeAudio;
extern id const AVMediaTypeMetadataObject;
extern id const AVMetadataObjectTypeQRCode;
extern id const AVCaptureDeviceTypeBuiltInWideAngleCamera;
extern id const AVVideoCodecKey;
extern id const AVVideoCodecTypeH264;
extern id const AVVideoCodecTypeJPEG;
extern id const AVVideoWidthKey;
extern id const AVVideoHeightKey;
extern id const AVVideoCompressionPropertiesKey;
extern id const AVVideoAverageBitRateKey;
extern id const AVCaptureSessionPresetHigh;
extern id const AVLayerVideoGravityResizeAspect;
}

namespace avf {

using fakeobjc::cls;
using fakeobjc::msg;

using fakeobjc::Ref;
using fakeobjc::Weak;
using fakeobjc::str;
using fakeobjc::strEqual;
using fakeobjc::number;
using fakeobjc::array;
using fakeobjc::elements;
using fakeobjc::dictionary;
using fakeobjc::isKind;

// Shared across the capture files.
bool isRegisteredDevice(id device);
id deviceNotConnectedError(); // +0 NSError, AVFoundationErrorDomain -11814
id makeInputPort(id input, id device);   // +1
void portSetInput(id port, id input);
id deviceInputDevice(id input);           // +0, the device the framework opened, nil for a bare input
id inputSession(id input);
void inputSetSession(id input, id session);
id outputSession(id output);
void outputSetSession(id output, id session);
void outputAttachConnection(id output, id connection);
void outputDetachConnection(id output, id connection);
std::vector<id> outputOwnConnections(id output);
void connectionSetSession(id connection, id session);
id connectionSession(id connection);
std::vector<id> connectionPorts(id connection);
id connectionOwnOutput(id connection);
void videoOutputStartDelivery(id output, id connection);
void videoOutputStopDelivery(id output);
id sessionVideoPort(id session);
void sessionAttachConnection(id session, id connection);
void sessionDetachConnection(id session, id connection);

} // namespace avf
