// SPDX-License-Identifier: Apache-2.0
//
// The two ways to make a local stream socket in the abstract namespace. The caller owns the
// descriptor. Any thread.
#pragma once

#include "util/export.h"

// A listening socket, non-blocking and close-on-exec; -1 and errno on failure.
TESU_API int CreateNonblockingServerSocket(const char* name);
// The same for a caller that tries again and again: it passes false after its first failure.
int OpenServerSocket(const char* name, bool logFailure);

// A connected non-blocking socket, kept open over an exec; -1 and errno on failure. Waits at most
// about a second for a server that does not accept.
TESU_API int ConnectToServer(const char* name);
