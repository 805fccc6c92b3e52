// UUIDs (Boost.Uuid's random generator) and SHA-1 digests (OpenSSL's libcrypto).
#include "zelcore/identifiers.h"

#include <openssl/evp.h>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cctype>

#include "zelbase/exceptions.h"

namespace zelcore {

std::string string_uuid(bool upper_case) {
  thread_local boost::uuids::random_generator generator;
  std::string text = boost::uuids::to_string(generator());
  if (upper_case)
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

std::string string_hash_SHA1_hex(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha1(), nullptr) != 1)
    zelbase::es::uspec::raise("code\\platform\\zelcore\\src\\identifiers", __LINE__,
                              "SHA-1 digest failed");
  static const char hex[] = "0123456789abcdef";
  std::string out(2 * length, '0');
  for (unsigned int i = 0; i < length; ++i) {
    out[2 * i] = hex[digest[i] >> 4];
    out[2 * i + 1] = hex[digest[i] & 0x0f];
  }
  return out;
}

}  // namespace zelcore
