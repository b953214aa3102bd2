#include "plinth/sha256.h"

#include <openssl/evp.h>

namespace kab::plinth {

void* Sha256Start() {
  EVP_MD_CTX* state = EVP_MD_CTX_new();
  if (state != nullptr && EVP_DigestInit_ex(state, EVP_sha256(), nullptr) != 1) {
    EVP_MD_CTX_free(state);
    return nullptr;
  }
  return state;
}

void Sha256Feed(void* state, const void* data, size_t length) {
  EVP_DigestUpdate(static_cast<EVP_MD_CTX*>(state), data, length);
}

void Sha256Finish(void* state, uint8_t digest[kSha256Size]) {
  EVP_DigestFinal_ex(static_cast<EVP_MD_CTX*>(state), digest, nullptr);
  Sha256Abandon(state);
}

void Sha256Abandon(void* state) { EVP_MD_CTX_free(static_cast<EVP_MD_CTX*>(state)); }

}  // namespace kab::plinth
