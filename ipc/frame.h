/* SPDX-License-Identifier: Apache-2.0
 *
 * The wire format between the service and its clients, and a client's side of it: requests, and the
 * cutting of what was received into packages. (The service's own test of a frame knows requests
 * only, see ipc/ipc_package.h.) Needs nothing but the C library, because the client library has it
 * too.
 *
 * A stream is a sequence of frames, all integers 32-bit little-endian:
 *
 *   frame    = length of the package in bytes, package
 *   package  = type, length of the body in bytes, body            (frame length = body length + 8)
 *   request  (type 0) body = request id, command[32], data length, data
 *   response (type 1) body = request id, result, data length, data
 *   event    (type 3) body = one record (records/raw_event.h) or notification
 *
 * Words in a stream are not aligned: they are read and written with memcpy.
 */
#ifndef TESUBPF_IPC_FRAME_H
#define TESUBPF_IPC_FRAME_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

enum IpcPackageType {
    IPC_PACKAGE_REQUEST = 0,
    IPC_PACKAGE_RESPONSE = 1,
    IPC_PACKAGE_RESERVED = 2,
    IPC_PACKAGE_EVENT = 3
};

/* In bytes. */
#define IPC_FRAME_HEADER_SIZE 4u     /* the length word */
#define IPC_PACKAGE_HEADER_SIZE 8u   /* type and body length */
#define IPC_COMMAND_SIZE 32u         /* of a request */
#define IPC_REQUEST_HEAD_SIZE 40u    /* request body before its data */
#define IPC_RESPONSE_HEAD_SIZE 12u   /* response body before its data */
#define IPC_RESPONSE_RECORD_SIZE 16u /* head and a stale word, see ipc/ipc_package.h */
/* Of the service's read and write buffer of one connection, and so of a client's. */
#define IPC_BUFFER_SIZE 32768

/* The word at `bytes`, which may be unaligned. */
static inline uint32_t ReadWord(const char* bytes) {
    uint32_t word = 0;
    memcpy(&word, bytes, sizeof(word));
    return word;
}

/* A whole request frame. */
#define REQUEST_FRAME_SIZE(dataSize) \
    (IPC_FRAME_HEADER_SIZE + IPC_PACKAGE_HEADER_SIZE + IPC_REQUEST_HEAD_SIZE + (dataSize))

/* Writes REQUEST_FRAME_SIZE(dataSize) bytes at `frame`. `command`: shorter than IPC_COMMAND_SIZE.
 */
void WriteRequest(char* frame, uint32_t requestId, const char* command, const void* data,
                  uint32_t dataSize);

/* What was received of a stream and not yet taken: data[cursor, length). */
struct FrameBuffer {
    size_t cursor;
    size_t length;
    size_t capacity;
    char* data;
};

/* Moves what is left to the front and receives what there is room for behind it. As recv(). */
ssize_t ReceiveFrames(int fd, struct FrameBuffer* buffer);

struct Package {
    uint32_t type;   /* IpcPackageType */
    uint32_t length; /* bytes */
    /* In the buffer; may be unaligned, valid until bytes in the buffer are moved or replaced. */
    const char* body;
};

enum FrameState { FRAME_INCOMPLETE, FRAME_TAKEN, FRAME_IMPOSSIBLE };

/* Room for the text about a frame that cannot be, with its NUL. */
#define FRAME_FAULT_SIZE 64

/* The package at the buffer's cursor, which moves past it.
 *
 * FRAME_IMPOSSIBLE when the stream is out of step and no later byte of it can be trusted: at a
 * frame without room for its package header, one that could never fit the buffer, or one whose two
 * lengths contradict each other. The cursor then stays at that frame, and `fault` says what it is.
 */
enum FrameState TakePackage(struct FrameBuffer* buffer, struct Package* package,
                            char fault[FRAME_FAULT_SIZE]);

#ifdef __cplusplus
}
#endif

#endif
