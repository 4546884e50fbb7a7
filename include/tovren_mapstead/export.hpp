// Marks the symbols that a shared build of the library exports. All others are hidden.
#pragma once

#ifdef TOVREN_MAPSTEAD_STATIC  // defined for users of a static build
#define TOVREN_EXPORT
#else
#define TOVREN_EXPORT [[gnu::visibility("default")]]
#endif
