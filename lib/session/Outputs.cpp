#include "session/Outputs.h"

#include "frames/FrameClient.h"
#include "inject/Connections.h"
#include "inject/Diagnostics.h"
#include "inject/Registry.h"

using namespace zerlan::objc;

namespace {

id queueObject(dispatch_queue_t queue)
{
    return reinterpret_cast<id>(queue);
}

} // namespace

// The delegate is stored without a reference (the app keeps it alive), the queue with one.
void zerlan_setSampleBufferDelegate_queue(id self, SEL, id delegate, dispatch_queue_t queue)
{
    objc_setAssociatedObject(self, &kVideoDelegateKey, delegate, OBJC_ASSOCIATION_ASSIGN);
    objc_setAssociatedObject(self, &kVideoQueueKey, queueObject(queue), OBJC_ASSOCIATION_RETAIN_NONATOMIC);
    send<void>(self, sel<"zerlan_setSampleBufferDelegate:queue:">(), delegate, queue);
}

id zerlan_recommendedVideoSettingsForAssetWriterWithOutputFileType(id self, SEL, id fileType)
{
    if (!ZerlanMarked(self, &kVideoOutputKey))
        return send<id>(self, sel<"zerlan_recommendedVideoSettingsForAssetWriterWithOutputFileType:">(), fileType);
    long orientation = send<long>(ZerlanConnectionForOutput(self), sel<"videoOrientation">());
    bool portrait = orientation == 1 || orientation == 2;
    id keys[] = {AVVideoCodecKey, AVVideoWidthKey, AVVideoHeightKey};
    id values[] = {AVVideoCodecTypeH264, number(portrait ? 480 : 640), number(portrait ? 640 : 480)};
    return send<id>(cls("NSDictionary"), sel<"dictionaryWithObjects:forKeys:count:">(), values, keys, 3ul);
}

id zerlan_availableMetadataObjectTypes(id self, SEL)
{
    return ZerlanMarked(self, &kMetadataOutputKey) ? arrayWithObject(AVMetadataObjectTypeQRCode)
                                                   : send<id>(self, sel<"zerlan_availableMetadataObjectTypes">());
}

// On an accepted output the requested types are dropped: detection is always QR only.
void zerlan_setMetadataObjectTypes(id self, SEL, id types)
{
    if (!ZerlanMarked(self, &kMetadataOutputKey))
        send<void>(self, sel<"zerlan_setMetadataObjectTypes:">(), types);
}

void zerlan_setMetadataObjectsDelegate_queue(id self, SEL, id delegate, dispatch_queue_t queue)
{
    if (!ZerlanMarked(self, &kMetadataOutputKey)) {
        send<void>(self, sel<"zerlan_setMetadataObjectsDelegate:queue:">(), delegate, queue);
        return;
    }
    objc_setAssociatedObject(self, &kMetadataDelegateKey, delegate, OBJC_ASSOCIATION_RETAIN_NONATOMIC);
    objc_setAssociatedObject(self, &kMetadataQueueKey, queueObject(queue), OBJC_ASSOCIATION_RETAIN_NONATOMIC);
    ZerlanFrameClient::shared().setMetadataOutput(self);
    ZerlanLog(CFSTR("[ZerlanInject] captured metadata delegate"));
}

// Every layer given any session is painted with injected frames; a fabricated session is not
// passed to the system, so the layer keeps the session it had.
void zerlan_setSession(id self, SEL, id session)
{
    if (!ZerlanMarked(session, &kFakeSessionKey))
        send<void>(self, sel<"zerlan_setSession:">(), session);
    ZerlanFrameClient::shared().addLayer(self);
}
