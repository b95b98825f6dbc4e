#include <NimbFoundation/NimbKit+ImagePicker.h>

#include <any>
#include <utility>

#include <NimbFoundation/Internal/NimbKitMethods.h>
#include <NimbFoundation/Internal/RuntimeMethods.h>
#include <NimbFoundation/NimbKit.h>
#include <NimbFoundation/Platform/Runtime/Associated.h>

namespace nimb {

const char NimbKitCompletionKey = 0;

namespace {

const Object* kitObject(const NimbKitImagePicker* picker) {
  // NimbKit is the only class that derives from NimbKitImagePicker.
  return static_cast<const NimbKit*>(picker);
}

}  // namespace

void NimbKitImagePicker::fetchImageFromAlbum(View* /*presenter*/, NimbKitCompletion completion) {
  setCompletion(std::move(completion));
  if (!ImagePickerController::isSourceTypeAvailable(ImagePickerSourceType::kPhotoLibrary)) return;
  if (picker_) picker_->dismiss();
  picker_ = ImagePickerController::create();
  picker_->setSourceType(ImagePickerSourceType::kPhotoLibrary);
  picker_->setDelegate(static_cast<NimbKit*>(this));
  picker_->present();
}

NimbKitCompletion NimbKitImagePicker::completion() const {
  std::any value = objc_getAssociatedObject(kitObject(this), &NimbKitCompletionKey);
  const auto* stored = std::any_cast<NimbKitCompletion>(&value);
  return stored ? *stored : NimbKitCompletion();
}

void NimbKitImagePicker::setCompletion(NimbKitCompletion completion) {
  objc_setAssociatedObject(kitObject(this), &NimbKitCompletionKey,
                           completion ? std::any(std::move(completion)) : std::any());
}

namespace detail {

void registerNimbKitImagePickerMethods(Class* cls) {
  addMethod<NimbKit>(cls, selectorNamed<"imagePickerController:didFinishPickingMediaWithInfo:">(),
                     [](NimbKit& kit, ImagePickerController* picker, ImagePickerMediaInfo info) {
                       if (picker) picker->dismiss();
                       // Cleared before the call, so a completion that asks again keeps
                       // its new request.
                       NimbKitCompletion completion = kit.completion();
                       kit.setCompletion(nullptr);
                       if (completion) completion(picker, info);
                     });
}

}  // namespace detail

}  // namespace nimb
