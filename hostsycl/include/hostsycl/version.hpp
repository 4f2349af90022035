// How programs recognise this implementation.
#pragma once

/// Major * 10000 + minor * 100 + patch.
#define HOSTSYCL 100

#ifndef SYCL_LANGUAGE_VERSION
#define SYCL_LANGUAGE_VERSION 202001
#endif
#ifndef SYCL_EXTERNAL
#define SYCL_EXTERNAL
#endif
