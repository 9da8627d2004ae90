#pragma once

// KOVEX_ASAN is 1 in AddressSanitizer builds, from GCC or Clang (Clang does
// not define __SANITIZE_ADDRESS__).
#if defined(__SANITIZE_ADDRESS__)
#define KOVEX_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KOVEX_ASAN 1
#endif
#endif
#ifndef KOVEX_ASAN
#define KOVEX_ASAN 0
#endif
