// Fuzz target: random bytes into the property decoder must give a tree or es::base, nothing
// else; a decoded tree must encode and decode again to an equal tree.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "zelbase/exceptions.h"
#include "zelcore/properties.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zelcore::property_ptr tree;
  try {
    tree = zelcore::decode_property(reinterpret_cast<const char*>(data), size);
  } catch (const zelbase::es::base&) {
    return 0;
  }
  const std::string again = zelcore::encode_property(*tree);
  const zelcore::property_ptr second = zelcore::decode_property(again.data(), again.size());
  if (!(*tree == *second)) std::abort();
  return 0;
}
