// NimbKitColor: the Color extension of the kit class NimbKit (call it as
// NimbKit::colorWithHexString(...)). A class method of NimbKit in the object
// runtime, called through it.
//
// Thread rule: any thread; no state, no locks.
#pragma once

#include <optional>
#include <string>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Graphics/Color.h>

namespace NIMB_EXPORT nimb {

class NimbKitColor {
 public:
  // The colour of "#RRGGBB" text:
  //   1. white space and line breaks are trimmed at both ends, the rest is
  //      upper-cased;
  //   2. 5 characters or fewer (an absent text included) give white;
  //   3. one leading "#" is dropped;
  //   4. exactly 6 characters left: each pair is read by
  //      Scanner::scanHexInt (leading hex digits only, so "1G" reads 1 and a
  //      pair with no hex digit reads 0) as the value v, and the component
  //      is float(v) / 255.0f widened to double; alpha 1;
  //   5. anything else gives white.
  // There is no "0x" prefix, no 3-digit form and no alpha pair.
  static Color colorWithHexString(std::optional<std::string> text);
};

}  // namespace nimb
