// The object runtime in one include: selectors (Runtime/Selector.h), type
// encodings (Runtime/TypeEncoding.h), objects, classes and methods
// (Runtime/Object.h), message sending (Runtime/MessageSend.h) and values
// associated with objects (Runtime/Associated.h).
#pragma once

#include <NimbFoundation/Platform/Runtime/Associated.h>
#include <NimbFoundation/Platform/Runtime/MessageSend.h>
#include <NimbFoundation/Platform/Runtime/Object.h>
#include <NimbFoundation/Platform/Runtime/Selector.h>
#include <NimbFoundation/Platform/Runtime/TypeEncoding.h>
