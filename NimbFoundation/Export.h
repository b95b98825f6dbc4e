// Export.h: which symbols the shared library offers.
//
// The library is built with hidden visibility. Every public header opens its
// namespace as `namespace NIMB_EXPORT nimb {`, which gives default visibility
// to what that block declares; headers under Internal/ open a plain
// `namespace nimb::detail` and stay out of the dynamic symbol table. A
// declaration outside such a block (a helper in a .cpp file) is hidden.
#pragma once

#define NIMB_EXPORT [[gnu::visibility("default")]]
