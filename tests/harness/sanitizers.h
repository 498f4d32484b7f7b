// Which sanitizer the program is compiled for: gcc and clang say so in different ways.
#pragma once

#ifdef __has_feature
#define ORVEXENG_HAS_FEATURE(feature) __has_feature(feature)
#else
#define ORVEXENG_HAS_FEATURE(feature) 0
#endif

#if defined(__SANITIZE_ADDRESS__) || ORVEXENG_HAS_FEATURE(address_sanitizer)
#define ORVEXENG_CHECKS_MEMORY 1
#else
#define ORVEXENG_CHECKS_MEMORY 0
#endif

#if defined(__SANITIZE_THREAD__) || ORVEXENG_HAS_FEATURE(thread_sanitizer)
#define ORVEXENG_CHECKS_THREADS 1
#else
#define ORVEXENG_CHECKS_THREADS 0
#endif
