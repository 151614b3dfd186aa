// MD5 (RFC 1321) and HMAC-MD5 (RFC 2104).
//
// The context calls serve the box firmware upgrade; the three convenience calls are exported for
// the recorder's own use. Those three hand back static buffers: each call of a function
// overwrites that function's previous result, so copy it before calling again, and do not call
// the same one from two threads at once. The context calls keep no state of their own.
#pragma once

#include <cstddef>
#include <cstdint>

#define KESTREL_MD5_EXPORT __attribute__((visibility("default")))

struct MD5_CTX {
    uint32_t state[4];         // chaining values A, B, C, D
    uint32_t count[2];         // message length in bits modulo 2^64, low word first
    unsigned char buffer[64];  // input still waiting for a full block
};
static_assert(sizeof(MD5_CTX) == 88, "MD5_CTX must have no padding");
static_assert(offsetof(MD5_CTX, state) == 0, "MD5_CTX layout");
static_assert(offsetof(MD5_CTX, count) == 16, "MD5_CTX layout");
static_assert(offsetof(MD5_CTX, buffer) == 24, "MD5_CTX layout");

KESTREL_MD5_EXPORT void kestrel_MD5Init(MD5_CTX* context);
KESTREL_MD5_EXPORT void kestrel_MD5Update(MD5_CTX* context, unsigned char* input,
                                          unsigned int inputLen);
// Writes the 16-byte digest, then wipes the whole context to zero.
KESTREL_MD5_EXPORT void kestrel_MD5Final(unsigned char* digest, MD5_CTX* context);

// Raw 16-byte digest of len bytes at data (not NUL-terminated; may contain zero bytes).
KESTREL_MD5_EXPORT char* kestrel_MDString(char* data, int len);
// 32 lowercase hex digits of the file's digest, or nullptr when it cannot be opened.
KESTREL_MD5_EXPORT char* kestrel_MDFile(char* path);
// 32 lowercase hex digits of HMAC-MD5 of the NUL-terminated text under the NUL-terminated key.
KESTREL_MD5_EXPORT char* kestrel_hmac_md5(char* text, char* key);
