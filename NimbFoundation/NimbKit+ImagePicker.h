// NimbKitImagePicker: letting the user pick a photo, an instance extension
// of the kit class NimbKit (call it on NimbKit::sharedInstance()). On a
// Linux desktop the photo library is the desktop's file chooser: the XDG
// desktop portal's org.freedesktop.portal.FileChooser, reached over the
// session D-Bus.
//
// fetchImageFromAlbum stores the completion (an associated value of the kit
// object under NimbKitCompletionKey, replacing any earlier one). When the
// session bus has no portal with a FileChooser, the library is not
// available: nothing is presented and the completion is not called. When it
// is, a chooser filtered to images opens in the user's pictures folder. The
// answer arrives on the main run loop: a pick sends
// imagePickerController(picker, info) to the kit object, which dismisses the
// picker, calls the completion once with the media dictionary and clears
// it. A cancel calls nothing and leaves the completion stored.
//
// The media dictionary holds, under the platform's keys:
//   UIImagePickerControllerOriginalImage   the decoded image (absent when the
//                                          file is no picture)
//   UIImagePickerControllerMediaURL        the file URL picked
//   UIImagePickerControllerReferenceURL    the same URL
//   UIImagePickerControllerMediaType       "public.image"
//
// Thread rule: main thread only, like the views.
#pragma once

#include <functional>
#include <memory>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

// Written by the picker helper: ImagePickerController, MediaInfo,
// NimbKitCompletion and the operations below.
class NimbKitImagePicker {
 public:
};

}  // namespace nimb
