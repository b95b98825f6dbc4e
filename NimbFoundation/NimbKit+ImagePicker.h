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
// The dictionary is an ImagePickerMediaInfo (Platform/Graphics/
// ImagePickerController.h), one field per key: the kit's Value holds no
// images. There is no view controller on this platform to present from:
// the presenter is the view the request comes from, or nullptr, and the
// desktop places the chooser itself.
//
// Thread rule: main thread only, like the views.
#pragma once

#include <functional>
#include <memory>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Graphics/ImagePickerController.h>

namespace NIMB_EXPORT nimb {

class View;

// What fetchImageFromAlbum calls back with: the picker and what was picked.
using NimbKitCompletion =
    std::function<void(ImagePickerController* picker, const ImagePickerMediaInfo& info)>;

// The key (its address) under which the kit object stores the completion,
// a NimbKitCompletion held in a std::any (Platform/Runtime/Associated.h).
extern const char NimbKitCompletionKey;

class NimbKitImagePicker {
 public:
  // Stores `completion` and, when the photo library is available, presents
  // a new picker whose delegate is the kit object; a picker the kit
  // presented earlier is dismissed first, so only the newest answers.
  void fetchImageFromAlbum(View* presenter, NimbKitCompletion completion);

  // The completion stored under NimbKitCompletionKey; empty when none.
  NimbKitCompletion completion() const;
  // Stores a completion; an empty one clears it.
  void setCompletion(NimbKitCompletion completion);

  // The picker the latest fetchImageFromAlbum presented, presented or not
  // by now; nullptr when none was. A caller waiting for the dialog to end
  // watches its isPresented().
  std::shared_ptr<ImagePickerController> imagePicker() const { return picker_; }

 protected:
  NimbKitImagePicker() = default;
  ~NimbKitImagePicker() = default;

 private:
  std::shared_ptr<ImagePickerController> picker_;
};

}  // namespace nimb
