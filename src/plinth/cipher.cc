#include "plinth/cipher.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <pthread.h>

#include <cstdlib>
#include <cstring>
#include <new>

namespace kab::plinth {

struct Cipher {
  const char* name;
  const EVP_CIPHER* (*resolve)();
  size_t keyLength;  // bytes
};

namespace {
constexpr Cipher kCiphers[] = {{"XTS-AES-256", EVP_aes_256_xts, 64}};
}

}  // namespace kab::plinth

// The key schedules, one a direction, prepared once; a transform only sets the tweak. A clone shares them: the mutex
// lets two clones on two threads work, one after the other, and is free of contention on one thread.
struct plinth_Key {
  pthread_mutex_t mutex;
  int references;
  EVP_CIPHER_CTX* schedule[2];  // decrypt, encrypt
};

namespace kab::plinth {
namespace {

class Locked {
 public:
  explicit Locked(plinth_Key* key) : key_(key) { pthread_mutex_lock(&key_->mutex); }
  ~Locked() { pthread_mutex_unlock(&key_->mutex); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  plinth_Key* key_;
};

void Destroy(plinth_Key* key) {
  EVP_CIPHER_CTX_free(key->schedule[0]);  // OpenSSL wipes the schedules
  EVP_CIPHER_CTX_free(key->schedule[1]);
  pthread_mutex_destroy(&key->mutex);
  std::free(key);
}

CipherError Transform(plinth_Key* key, int encrypt, const uint8_t tweak[16], const void* in, void* out, size_t length) {
  const Locked guard(key);
  EVP_CIPHER_CTX* schedule = key->schedule[encrypt];
  if (EVP_CipherInit_ex(schedule, nullptr, nullptr, nullptr, tweak, encrypt) != 1) return kCipherFailed;
  int done = 0;
  if (EVP_CipherUpdate(schedule, static_cast<uint8_t*>(out), &done, static_cast<const uint8_t*>(in),
                       static_cast<int>(length)) != 1 ||
      static_cast<size_t>(done) != length) {
    return kCipherFailed;
  }
  return kCipherOk;
}

}  // namespace

const char* CipherErrorText(CipherError error) {
  switch (error) {
    case kCipherOk:
      return "Success";
    case kCipherUnknown:
      return "Unknown cipher";
    case kCipherNoMemory:
      return "Out of memory";
    case kCipherBadKey:
      return "Invalid key";
    default:
      return "Cipher operation failed";
  }
}

CipherError CipherByName(const char* name, const Cipher** out) {
  for (const Cipher& cipher : kCiphers) {
    if (std::strcmp(cipher.name, name) == 0) {
      *out = &cipher;
      return kCipherOk;
    }
  }
  return kCipherUnknown;
}

CipherError KeyCreate(const Cipher* cipher, const void* bytes, size_t length, plinth_Key** out) {
  if (length != cipher->keyLength) return kCipherBadKey;
  auto* key = static_cast<plinth_Key*>(std::calloc(1, sizeof(plinth_Key)));
  if (key == nullptr) return kCipherNoMemory;
  if (pthread_mutex_init(&key->mutex, nullptr) != 0) {
    std::free(key);
    return kCipherNoMemory;
  }
  key->references = 1;
  for (int encrypt = 0; encrypt < 2; ++encrypt) {
    key->schedule[encrypt] = EVP_CIPHER_CTX_new();
    if (key->schedule[encrypt] == nullptr) {
      Destroy(key);
      return kCipherNoMemory;
    }
    // OpenSSL refuses equal halves, as the standard asks.
    if (EVP_CipherInit_ex(key->schedule[encrypt], cipher->resolve(), nullptr, static_cast<const uint8_t*>(bytes),
                          nullptr, encrypt) != 1) {
      Destroy(key);
      return kCipherBadKey;
    }
  }
  *out = key;
  return kCipherOk;
}

CipherError KeyClone(plinth_Key* key, plinth_Key** out) {
  if (key == nullptr) return kCipherBadKey;
  const Locked guard(key);
  ++key->references;
  *out = key;
  return kCipherOk;
}

void KeyRelease(plinth_Key* key) {
  if (key == nullptr) return;
  bool last = false;
  {
    const Locked guard(key);
    last = --key->references == 0;
  }
  if (last) Destroy(key);
}

CipherError KeyXtsDecrypt(plinth_Key* key, const uint8_t tweak[16], const void* in, void* out, size_t length) {
  return Transform(key, 0, tweak, in, out, length);
}

CipherError KeyXtsEncrypt(plinth_Key* key, const uint8_t tweak[16], const void* in, void* out, size_t length) {
  return Transform(key, 1, tweak, in, out, length);
}

}  // namespace kab::plinth
