// Written from RFC 1321 and RFC 2104. Bytes are assembled into words explicitly, so the code
// neither depends on host byte order nor reads words from unaligned input.
#include "md5.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr uint32_t kSine[64] = {
    0xd76aa478U, 0xe8c7b756U, 0x242070dbU, 0xc1bdceeeU, 0xf57c0fafU, 0x4787c62aU, 0xa8304613U,
    0xfd469501U, 0x698098d8U, 0x8b44f7afU, 0xffff5bb1U, 0x895cd7beU, 0x6b901122U, 0xfd987193U,
    0xa679438eU, 0x49b40821U, 0xf61e2562U, 0xc040b340U, 0x265e5a51U, 0xe9b6c7aaU, 0xd62f105dU,
    0x02441453U, 0xd8a1e681U, 0xe7d3fbc8U, 0x21e1cde6U, 0xc33707d6U, 0xf4d50d87U, 0x455a14edU,
    0xa9e3e905U, 0xfcefa3f8U, 0x676f02d9U, 0x8d2a4c8aU, 0xfffa3942U, 0x8771f681U, 0x6d9d6122U,
    0xfde5380cU, 0xa4beea44U, 0x4bdecfa9U, 0xf6bb4b60U, 0xbebfbc70U, 0x289b7ec6U, 0xeaa127faU,
    0xd4ef3085U, 0x04881d05U, 0xd9d4d039U, 0xe6db99e5U, 0x1fa27cf8U, 0xc4ac5665U, 0xf4292244U,
    0x432aff97U, 0xab9423a7U, 0xfc93a039U, 0x655b59c3U, 0x8f0ccc92U, 0xffeff47dU, 0x85845dd1U,
    0x6fa87e4fU, 0xfe2ce6e0U, 0xa3014314U, 0x4e0811a1U, 0xf7537e82U, 0xbd3af235U, 0x2ad7d2bbU,
    0xeb86d391U,
};

// Rotation amounts, four per round, repeated across the round's sixteen steps.
constexpr unsigned kShift[4][4] = {
    {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

constexpr size_t kBlock = 64;
constexpr size_t kDigest = 16;

inline uint32_t Rotl(uint32_t x, unsigned n) {
    return (x << n) | (x >> (32U - n));
}

void Transform(uint32_t state[4], const unsigned char block[kBlock]) {
    uint32_t x[16];
    for (size_t i = 0; i < 16; ++i) {
        x[i] = static_cast<uint32_t>(block[4 * i]) |
               (static_cast<uint32_t>(block[4 * i + 1]) << 8) |
               (static_cast<uint32_t>(block[4 * i + 2]) << 16) |
               (static_cast<uint32_t>(block[4 * i + 3]) << 24);
    }
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    for (unsigned i = 0; i < 64; ++i) {
        const unsigned round = i / 16;
        uint32_t f;
        unsigned k;
        switch (round) {
            case 0:
                f = (b & c) | (~b & d);
                k = i;
                break;
            case 1:
                f = (b & d) | (c & ~d);
                k = (5 * i + 1) % 16;
                break;
            case 2:
                f = b ^ c ^ d;
                k = (3 * i + 5) % 16;
                break;
            default:
                f = c ^ (b | ~d);
                k = (7 * i) % 16;
                break;
        }
        const uint32_t next = b + Rotl(a + f + x[k] + kSine[i], kShift[round][i % 4]);
        a = d;
        d = c;
        c = b;
        b = next;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
}

void EncodeLe(unsigned char* out, const uint32_t* in, size_t words) {
    for (size_t i = 0; i < words; ++i) {
        out[4 * i] = static_cast<unsigned char>(in[i]);
        out[4 * i + 1] = static_cast<unsigned char>(in[i] >> 8);
        out[4 * i + 2] = static_cast<unsigned char>(in[i] >> 16);
        out[4 * i + 3] = static_cast<unsigned char>(in[i] >> 24);
    }
}

// Update takes an unsigned int length; lengths from strlen are fed in pieces that fit.
void UpdateSized(MD5_CTX* ctx, const unsigned char* data, size_t len) {
    constexpr size_t kMaxPiece = 0x40000000U;  // a multiple of the block size
    while (len > 0) {
        const size_t piece = len < kMaxPiece ? len : kMaxPiece;
        kestrel_MD5Update(ctx, const_cast<unsigned char*>(data), static_cast<unsigned int>(piece));
        data += piece;
        len -= piece;
    }
}

void ToHex(char out[2 * kDigest + 1], const unsigned char digest[kDigest]) {
    static const char kDigits[] = "0123456789abcdef";
    for (size_t i = 0; i < kDigest; ++i) {
        out[2 * i] = kDigits[digest[i] >> 4];
        out[2 * i + 1] = kDigits[digest[i] & 0x0F];
    }
    out[2 * kDigest] = '\0';
}

}  // namespace

void kestrel_MD5Init(MD5_CTX* context) {
    if (context == nullptr) return;
    context->count[0] = 0;
    context->count[1] = 0;
    context->state[0] = 0x67452301U;
    context->state[1] = 0xefcdab89U;
    context->state[2] = 0x98badcfeU;
    context->state[3] = 0x10325476U;
}

void kestrel_MD5Update(MD5_CTX* context, unsigned char* input, unsigned int inputLen) {
    // A null input has no bytes to give whatever length is claimed; treat it as empty.
    if (context == nullptr || input == nullptr || inputLen == 0) return;

    size_t index = (context->count[0] >> 3) & 0x3FU;
    const uint32_t bits = static_cast<uint32_t>(inputLen) << 3;
    context->count[0] += bits;
    if (context->count[0] < bits) ++context->count[1];
    context->count[1] += static_cast<uint32_t>(inputLen) >> 29;

    const size_t len = inputLen;
    const size_t partLen = kBlock - index;
    size_t i = 0;
    if (len >= partLen) {
        std::memcpy(&context->buffer[index], input, partLen);
        Transform(context->state, context->buffer);
        for (i = partLen; i + kBlock <= len; i += kBlock) Transform(context->state, &input[i]);
        index = 0;
    }
    std::memcpy(&context->buffer[index], &input[i], len - i);
}

void kestrel_MD5Final(unsigned char* digest, MD5_CTX* context) {
    if (context == nullptr) return;
    unsigned char bits[8];
    EncodeLe(bits, context->count, 2);

    // 0x80 then zeros up to 56 mod 64: 1 to 64 bytes of padding.
    static const unsigned char kPadding[kBlock] = {0x80};
    const size_t index = (context->count[0] >> 3) & 0x3FU;
    const size_t padLen = index < 56 ? 56 - index : 120 - index;
    kestrel_MD5Update(context, const_cast<unsigned char*>(kPadding),
                      static_cast<unsigned int>(padLen));
    kestrel_MD5Update(context, bits, 8);

    if (digest != nullptr) EncodeLe(digest, context->state, 4);
    std::memset(context, 0, sizeof *context);
}

char* kestrel_MDString(char* data, int len) {
    static unsigned char s_digest[kDigest];
    MD5_CTX ctx;
    kestrel_MD5Init(&ctx);
    // A negative length is a caller's error; digesting nothing is the harmless reading of it.
    if (data != nullptr && len > 0) {
        kestrel_MD5Update(&ctx, reinterpret_cast<unsigned char*>(data),
                          static_cast<unsigned int>(len));
    }
    kestrel_MD5Final(s_digest, &ctx);
    return reinterpret_cast<char*>(s_digest);
}

char* kestrel_MDFile(char* path) {
    static char s_hex[2 * kDigest + 1];
    FILE* file = path != nullptr ? std::fopen(path, "rb") : nullptr;
    if (file == nullptr) {
        std::printf("%s can't be openedn", path != nullptr ? path : "(null)");
        // No line break ends the text, so flush or it may never reach the console log.
        std::fflush(stdout);
        return nullptr;
    }
    MD5_CTX ctx;
    kestrel_MD5Init(&ctx);
    unsigned char block[1024];
    size_t got;
    while ((got = std::fread(block, 1, sizeof block, file)) > 0) {
        kestrel_MD5Update(&ctx, block, static_cast<unsigned int>(got));
    }
    unsigned char digest[kDigest];
    kestrel_MD5Final(digest, &ctx);
    std::fclose(file);
    ToHex(s_hex, digest);
    return s_hex;
}

char* kestrel_hmac_md5(char* text, char* key) {
    static char s_hex[2 * kDigest + 1];
    // A null argument is read as the empty string rather than crashing in strlen.
    const unsigned char* msg = reinterpret_cast<const unsigned char*>(text != nullptr ? text : "");
    const unsigned char* k = reinterpret_cast<const unsigned char*>(key != nullptr ? key : "");
    size_t keyLen = std::strlen(reinterpret_cast<const char*>(k));
    const size_t msgLen = std::strlen(reinterpret_cast<const char*>(msg));

    unsigned char hashedKey[kDigest];
    MD5_CTX ctx;
    if (keyLen > kBlock) {
        kestrel_MD5Init(&ctx);
        UpdateSized(&ctx, k, keyLen);
        kestrel_MD5Final(hashedKey, &ctx);
        k = hashedKey;
        keyLen = kDigest;
    }

    unsigned char ipad[kBlock] = {};
    unsigned char opad[kBlock] = {};
    std::memcpy(ipad, k, keyLen);
    std::memcpy(opad, k, keyLen);
    for (size_t i = 0; i < kBlock; ++i) {
        ipad[i] ^= 0x36U;
        opad[i] ^= 0x5CU;
    }

    unsigned char inner[kDigest];
    kestrel_MD5Init(&ctx);
    kestrel_MD5Update(&ctx, ipad, kBlock);
    UpdateSized(&ctx, msg, msgLen);
    kestrel_MD5Final(inner, &ctx);

    unsigned char outer[kDigest];
    kestrel_MD5Init(&ctx);
    kestrel_MD5Update(&ctx, opad, kBlock);
    kestrel_MD5Update(&ctx, inner, kDigest);
    kestrel_MD5Final(outer, &ctx);

    ToHex(s_hex, outer);
    return s_hex;
}
