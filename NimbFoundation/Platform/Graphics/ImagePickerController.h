// ImagePickerController: the platform's photo picker. On a Linux desktop
// the photo library is the desktop's file chooser, the XDG desktop portal's
// org.freedesktop.portal.FileChooser (at /org/freedesktop/portal/desktop,
// owned by org.freedesktop.portal.Desktop) on the session D-Bus. The bus is
// the one DBUS_SESSION_BUS_ADDRESS names, else $XDG_RUNTIME_DIR/bus, both
// read through Env::current().
//
// present() asks the portal for a chooser titled "Choose a photo", filtered
// to images, modal, opening in the user's pictures folder (`xdg-user-dir
// PICTURES`, run through Env::current(), when that folder exists). The
// desktop draws the dialog itself: there is no parent window to give it.
// The portal's answer is received on a library thread and delivered on the
// main run loop (RunLoop::main()), never elsewhere, as messages sent through
// the object runtime to the delegate, each only when the delegate's class
// answers it:
//   "imagePickerController:didFinishPickingMediaWithInfo:"
//       void (ImagePickerController* picker, ImagePickerMediaInfo info)
//       a file was picked; the picker stays presented until the delegate
//       dismisses it.
//   "imagePickerControllerDidCancel:"
//       void (ImagePickerController* picker)
//       the dialog ended without a pick (cancelled or closed otherwise); the
//       picker is already dismissed.
// A dismissed picker (dismiss(), or destroyed) closes its dialog and sends
// nothing more.
//
// Thread rule: main thread only, like the views.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Net/URL.h>

namespace NIMB_EXPORT nimb {

class Image;
class Object;

enum class ImagePickerSourceType : int { kPhotoLibrary = 0, kCamera = 1, kSavedPhotosAlbum = 2 };

// What a pick delivers: the platform's media dictionary as a struct (the
// kit's Value holds no images). Each field names its key.
struct ImagePickerMediaInfo {
  static constexpr const char* kOriginalImageKey = "UIImagePickerControllerOriginalImage";
  static constexpr const char* kMediaURLKey = "UIImagePickerControllerMediaURL";
  static constexpr const char* kReferenceURLKey = "UIImagePickerControllerReferenceURL";
  static constexpr const char* kMediaTypeKey = "UIImagePickerControllerMediaType";

  // OriginalImage: the decoded picture; null when the file is no picture.
  std::shared_ptr<const Image> originalImage;
  // MediaURL: the file URL picked; ReferenceURL: the same URL.
  std::optional<URL> mediaURL;
  std::optional<URL> referenceURL;
  // MediaType: "public.image".
  std::string mediaType;
  // The local path of the file picked.
  std::string path;
};

class ImagePickerController : public std::enable_shared_from_this<ImagePickerController> {
 public:
  static std::shared_ptr<ImagePickerController> create();
  ~ImagePickerController();
  ImagePickerController(const ImagePickerController&) = delete;
  ImagePickerController& operator=(const ImagePickerController&) = delete;

  // The photo library and the saved photos album are available when the
  // session bus answers and its portal implements the FileChooser (its
  // "version" property reads); the camera never is. Asks the bus each time
  // (a round trip, at most two seconds).
  static bool isSourceTypeAvailable(ImagePickerSourceType type);

  ImagePickerSourceType sourceType() const { return sourceType_; }
  void setSourceType(ImagePickerSourceType type) { sourceType_ = type; }
  // Not retained: the delegate must outlive the picker's presentation.
  Object* delegate() const { return delegate_; }
  void setDelegate(Object* delegate) { delegate_ = delegate; }
  // The desktop chooser offers no editing; the setting is kept for callers.
  bool allowsEditing() const { return allowsEditing_; }
  void setAllowsEditing(bool allows) { allowsEditing_ = allows; }

  // Opens the chooser. False, presenting nothing, when already presented or
  // when the source type is not available.
  bool present();
  bool isPresented() const { return request_ != nullptr; }
  // Closes the dialog if it is open; nothing is delivered afterwards.
  void dismiss();

  struct Request;

 private:
  ImagePickerController() = default;

  ImagePickerSourceType sourceType_ = ImagePickerSourceType::kPhotoLibrary;
  Object* delegate_ = nullptr;
  bool allowsEditing_ = false;
  std::shared_ptr<Request> request_;
};

}  // namespace nimb
