// SPDX-License-Identifier: Apache-2.0
//
// Logging to the Android log (logcat on a device, stderr on a host). `tag` names the module; the
// messages themselves begin with class and method in square brackets.
//
// Callable from any thread; not from a signal handler. errno may change.
#pragma once

#include <android/log.h>

// Tag of the service and its client callbacks.
inline constexpr const char* TESU_LOG_SERVICE = "BpfService";
// Tag of free functions and of objects that were given no name of their own.
inline constexpr const char* TESU_LOG_UTILS = "BpfUtils";

#define TESU_LOGD(tag, ...) __android_log_print(ANDROID_LOG_DEBUG, (tag), __VA_ARGS__)
#define TESU_LOGI(tag, ...) __android_log_print(ANDROID_LOG_INFO, (tag), __VA_ARGS__)
#define TESU_LOGW(tag, ...) __android_log_print(ANDROID_LOG_WARN, (tag), __VA_ARGS__)
#define TESU_LOGE(tag, ...) __android_log_print(ANDROID_LOG_ERROR, (tag), __VA_ARGS__)
