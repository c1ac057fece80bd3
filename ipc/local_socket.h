/* SPDX-License-Identifier: Apache-2.0
 *
 * Connecting to a stream socket in the abstract namespace. Needs nothing but the C library, because
 * the client library has it too. Logs nothing. Any thread.
 */
#ifndef TESUBPF_IPC_LOCAL_SOCKET_H
#define TESUBPF_IPC_LOCAL_SOCKET_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A connected socket, which is the caller's; -1 and errno on failure: ECONNREFUSED when nobody
 * listens under `name`. socketFlags: SOCK_CLOEXEC, SOCK_NONBLOCK. Non-blocking it fails with EAGAIN
 * when the listener has too many connections to accept, otherwise it waits about a second for it.
 */
int ConnectLocalSocket(const char* name, int socketFlags);

/* Whether somebody listens under `name`. A connection is made and closed at once; never blocks, not
 * even when the listener does not accept. */
bool IsServiceListening(const char* name);

#ifdef __cplusplus
}
#endif

#endif
