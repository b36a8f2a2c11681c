// AVFoundation's exported string constants: data symbols whose values are the strings that the
// real framework exports under the same names.
#include "AVFPrivate.h"

#define AVF_STRING(name, value) AVF_EXPORT id const name = (id)CFSTR(value)

AVF_STRING(AVMediaTypeVideo, "vide");
AVF_STRING(AVMediaTypeAudio, "soun");
AVF_STRING(AVMediaTypeText, "text");
AVF_STRING(AVMediaTypeMuxed, "muxx");
AVF_STRING(AVMediaTypeMetadata, "meta");
AVF_STRING(AVMediaTypeMetadataObject, "mobj");

AVF_STRING(AVMetadataObjectTypeQRCode, "org.iso.QRCode");
AVF_STRING(AVMetadataObjectTypeFace, "face");
AVF_STRING(AVMetadataObjectTypeAztecCode, "org.iso.Aztec");
AVF_STRING(AVMetadataObjectTypeCode128Code, "org.iso.Code128");
AVF_STRING(AVMetadataObjectTypeCode39Code, "org.iso.Code39");
AVF_STRING(AVMetadataObjectTypeCode39Mod43Code, "org.iso.Code39Mod43");
AVF_STRING(AVMetadataObjectTypeCode93Code, "com.intermec.Code93");
AVF_STRING(AVMetadataObjectTypeDataMatrixCode, "org.iso.DataMatrix");
AVF_STRING(AVMetadataObjectTypeEAN13Code, "org.gs1.EAN-13");
AVF_STRING(AVMetadataObjectTypeEAN8Code, "org.gs1.EAN-8");
AVF_STRING(AVMetadataObjectTypeInterleaved2of5Code, "org.ansi.Interleaved2of5");
AVF_STRING(AVMetadataObjectTypeITF14Code, "org.gs1.ITF14");
AVF_STRING(AVMetadataObjectTypePDF417Code, "org.iso.PDF417");
AVF_STRING(AVMetadataObjectTypeUPCECode, "org.gs1.UPC-E");

AVF_STRING(AVCaptureDeviceTypeBuiltInWideAngleCamera, "AVCaptureDeviceTypeBuiltInWideAngleCamera");
AVF_STRING(AVCaptureDeviceTypeBuiltInTelephotoCamera, "AVCaptureDeviceTypeBuiltInTelephotoCamera");
AVF_STRING(AVCaptureDeviceTypeBuiltInUltraWideCamera, "AVCaptureDeviceTypeBuiltInUltraWideCamera");
AVF_STRING(AVCaptureDeviceTypeBuiltInDualCamera, "AVCaptureDeviceTypeBuiltInDualCamera");
AVF_STRING(AVCaptureDeviceTypeBuiltInDualWideCamera, "AVCaptureDeviceTypeBuiltInDualWideCamera");
AVF_STRING(AVCaptureDeviceTypeBuiltInTripleCamera, "AVCaptureDeviceTypeBuiltInTripleCamera");
AVF_STRING(AVCaptureDeviceTypeBuiltInTrueDepthCamera, "AVCaptureDeviceTypeBuiltInTrueDepthCamera");
AVF_STRING(AVCaptureDeviceTypeBuiltInLiDARDepthCamera, "AVCaptureDeviceTypeBuiltInLiDARDepthCamera");
AVF_STRING(AVCaptureDeviceTypeExternal, "AVCaptureDeviceTypeExternal");
AVF_STRING(AVCaptureDeviceTypeMicrophone, "AVCaptureDeviceTypeMicrophone");
AVF_STRING(AVCaptureDeviceTypeContinuityCamera, "AVCaptureDeviceTypeContinuityCamera");
AVF_STRING(AVCaptureDeviceTypeBuiltInMicrophone, "AVCaptureDeviceTypeBuiltInMicrophone");

AVF_STRING(AVVideoCodecKey, "AVVideoCodecKey");
AVF_STRING(AVVideoCodecTypeH264, "avc1");
AVF_STRING(AVVideoCodecH264, "avc1");
AVF_STRING(AVVideoCodecTypeHEVC, "hvc1");
AVF_STRING(AVVideoCodecTypeJPEG, "jpeg");
AVF_STRING(AVVideoCodecJPEG, "jpeg");
AVF_STRING(AVVideoWidthKey, "AVVideoWidthKey");
AVF_STRING(AVVideoHeightKey, "AVVideoHeightKey");
AVF_STRING(AVVideoCompressionPropertiesKey, "AVVideoCompressionPropertiesKey");
AVF_STRING(AVVideoAverageBitRateKey, "AverageBitRate");
AVF_STRING(AVVideoMaxKeyFrameIntervalKey, "MaxKeyFrameInterval");
AVF_STRING(AVVideoProfileLevelKey, "ProfileLevel");
AVF_STRING(AVVideoScalingModeKey, "AVVideoScalingModeKey");

AVF_STRING(AVFileTypeMPEG4, "public.mpeg-4");
AVF_STRING(AVFileTypeQuickTimeMovie, "com.apple.quicktime-movie");
AVF_STRING(AVFileTypeAppleM4V, "com.apple.m4v-video");
AVF_STRING(AVFileTypeJPEG, "public.jpeg");

AVF_STRING(AVCaptureSessionPresetPhoto, "AVCaptureSessionPresetPhoto");
AVF_STRING(AVCaptureSessionPresetHigh, "AVCaptureSessionPresetHigh");
AVF_STRING(AVCaptureSessionPresetMedium, "AVCaptureSessionPresetMedium");
AVF_STRING(AVCaptureSessionPresetLow, "AVCaptureSessionPresetLow");
AVF_STRING(AVCaptureSessionPreset352x288, "AVCaptureSessionPreset352x288");
AVF_STRING(AVCaptureSessionPreset640x480, "AVCaptureSessionPreset640x480");
AVF_STRING(AVCaptureSessionPreset1280x720, "AVCaptureSessionPreset1280x720");
AVF_STRING(AVCaptureSessionPreset1920x1080, "AVCaptureSessionPreset1920x1080");
AVF_STRING(AVCaptureSessionPreset3840x2160, "AVCaptureSessionPreset3840x2160");
AVF_STRING(AVCaptureSessionPresetInputPriority, "AVCaptureSessionPresetInputPriority");

AVF_STRING(AVLayerVideoGravityResize, "AVLayerVideoGravityResize");
AVF_STRING(AVLayerVideoGravityResizeAspect, "AVLayerVideoGravityResizeAspect");
AVF_STRING(AVLayerVideoGravityResizeAspectFill, "AVLayerVideoGravityResizeAspectFill");

AVF_STRING(AVFoundationErrorDomain, "AVFoundationErrorDomain");
AVF_STRING(AVCaptureSessionRuntimeErrorNotification, "AVCaptureSessionRuntimeErrorNotification");
AVF_STRING(AVCaptureSessionDidStartRunningNotification, "AVCaptureSessionDidStartRunningNotification");
AVF_STRING(AVCaptureSessionDidStopRunningNotification, "AVCaptureSessionDidStopRunningNotification");
AVF_STRING(AVCaptureSessionErrorKey, "AVCaptureSessionErrorKey");
