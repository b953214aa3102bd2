#pragma once
// Ciphers by name and keys made from them. XTS is the only mode the disks use.

#include <cstddef>
#include <cstdint>

struct plinth_Key;

namespace kab::plinth {

struct Cipher;

/// The outcome of a cipher operation: 0, or a code for CipherErrorText.
using CipherError = int;
inline constexpr CipherError kCipherOk = 0;
inline constexpr CipherError kCipherUnknown = 1;
inline constexpr CipherError kCipherNoMemory = 2;
inline constexpr CipherError kCipherBadKey = 3;
inline constexpr CipherError kCipherFailed = 4;

const char* CipherErrorText(CipherError error);

/// The cipher of that name ("XTS-AES-256"); static, never released.
CipherError CipherByName(const char* name, const Cipher** out);

/// A key from its raw bytes (64 for XTS-AES-256; both halves must differ). Released with KeyRelease.
CipherError KeyCreate(const Cipher* cipher, const void* bytes, size_t length, plinth_Key** out);
/// A handle for private use on one thread: another reference to the same key. Transforms of one key, on whatever
/// threads, run one after the other.
CipherError KeyClone(plinth_Key* key, plinth_Key** out);
/// Wipes the key with the last reference; null is allowed.
void KeyRelease(plinth_Key* key);

/// Transforms `length` bytes (at least 16) under a 16-byte tweak; `in` and `out` may be the same.
CipherError KeyXtsDecrypt(plinth_Key* key, const uint8_t tweak[16], const void* in, void* out, size_t length);
CipherError KeyXtsEncrypt(plinth_Key* key, const uint8_t tweak[16], const void* in, void* out, size_t length);

}  // namespace kab::plinth
