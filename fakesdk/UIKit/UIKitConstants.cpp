// UIKit's exported string constants: data symbols holding the same strings as Apple's.
#include "UIKitPrivate.h"

#define UIKIT_STRING(name) UIKIT_EXPORT id const name = (id)CFSTR(#name)

UIKIT_STRING(UIImagePickerControllerMediaType);
UIKIT_STRING(UIImagePickerControllerOriginalImage);
UIKIT_STRING(UIImagePickerControllerEditedImage);
UIKIT_STRING(UIImagePickerControllerCropRect);
UIKIT_STRING(UIImagePickerControllerMediaURL);
UIKIT_STRING(UIImagePickerControllerReferenceURL);
UIKIT_STRING(UIImagePickerControllerMediaMetadata);
UIKIT_STRING(UIImagePickerControllerLivePhoto);
UIKIT_STRING(UIImagePickerControllerPHAsset);
UIKIT_STRING(UIImagePickerControllerImageURL);
