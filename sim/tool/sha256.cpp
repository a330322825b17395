#include "sim/tool/sha256.h"

#include <fstream>
#include <stdexcept>

#include "sim/modem/errors.h"

namespace velmar_sim {

namespace {

constexpr size_t kPieceSize = size_t{64} << 10;

void Require(int result) {
    if (result != 1) throw std::runtime_error("the SHA-256 could not be computed");
}

}  // namespace

Sha256::Sha256() : context(EVP_MD_CTX_new()) {
    Require(EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr));
}

void Sha256::Add(const std::string& piece) {
    Require(EVP_DigestUpdate(context.get(), piece.data(), piece.size()));
}

std::string Sha256::Finish() {
    constexpr char kDigits[] = "0123456789abcdef";
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    Require(EVP_DigestFinal_ex(context.get(), digest, &size));
    std::string text;
    for (unsigned int i = 0; i < size; ++i) {
        text += kDigits[digest[i] >> 4];
        text += kDigits[digest[i] & 15];
    }
    return text;
}

std::string Sha256OfFile(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream) ThrowErrno("open " + path);
    Sha256 hash;
    std::string piece;
    while (stream) {
        piece.resize(kPieceSize);
        stream.read(piece.data(), static_cast<std::streamsize>(piece.size()));
        piece.resize(static_cast<size_t>(stream.gcount()));
        hash.Add(piece);
    }
    if (stream.bad()) ThrowErrno("read " + path);
    return hash.Finish();
}

}  // namespace velmar_sim
