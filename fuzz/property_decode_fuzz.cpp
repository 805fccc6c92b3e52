// Fuzz target: random bytes into the property decoder must give a tree or es::base, nothing
// else, and the same outcome (equal trees, or the same refusal text) as the second decoder
// built on msgpack-cxx's general parser; a decoded tree must encode and decode again to an
// equal tree.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "support/reference_decoder.h"
#include "zelbase/exceptions.h"
#include "zelcore/properties.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const char* bytes = reinterpret_cast<const char*>(data);
  const zeltest::reference_result expected = zeltest::reference_decoder::decode(bytes, size);
  zelcore::property_ptr tree;
  try {
    tree = zelcore::decode_property(bytes, size);
  } catch (const zelbase::es::base& e) {
    if (e.message() != expected.error) std::abort();
    return 0;
  }
  if (!expected.value || !(*tree == *expected.value)) std::abort();
  const std::string again = zelcore::encode_property(*tree);
  const zelcore::property_ptr second = zelcore::decode_property(again.data(), again.size());
  if (!(*tree == *second)) std::abort();
  return 0;
}
