#pragma once

#include <memory>
#include <string>

#include "openssl/evp.h"

namespace velmar_sim {

// The SHA-256 of bytes that come piece by piece. One thread. Operations throw std::runtime_error
// when the library has no memory.
class Sha256 {
  public:
    Sha256();

    void Add(const std::string& piece);

    // In hexadecimal, of all that was added. Nothing is added afterwards.
    std::string Finish();

  private:
    struct Freer {
        void operator()(EVP_MD_CTX* freed) const { EVP_MD_CTX_free(freed); }
    };
    std::unique_ptr<EVP_MD_CTX, Freer> context;
};

// The SHA-256 of the file at the workstation's `path`, in hexadecimal. Throws std::runtime_error
// when it cannot be read. Any thread.
std::string Sha256OfFile(const std::string& path);

}  // namespace velmar_sim
