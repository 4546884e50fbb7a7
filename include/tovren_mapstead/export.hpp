// What a shared build of the library shows to those who link with it; all else in it is hidden.
#pragma once

#ifdef TOVREN_MAPSTEAD_STATIC  // defined for users of a static build
#define TOVREN_EXPORT
#else
#define TOVREN_EXPORT [[gnu::visibility("default")]]
#endif
