// Fuzz target: random bytes as a stored record's JSON text (a file or a server edited by hand)
// must give a tree or malformed_json, nothing else; a tree read must write and read again to an
// equal tree, in both forms of NUL, with an equal digest.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "json_record.h"
#include "record_digests.h"
#include "zelbase/exceptions.h"

using zelcapi::store_detail::json_form;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  zelcore::properties tree;
  try {
    tree = zelcapi::store_detail::read_json(text);
  } catch (const zelcapi::store_detail::malformed_json&) {
    return 0;
  }
  for (const json_form form : {json_form::text, json_form::jsonb}) {
    zelbase::encoder_network out;
    try {
      zelcapi::store_detail::write_json(tree, out, form);
    } catch (const zelbase::es::arg&) {
      std::abort();  // what was read is never too deep to write
    }
    const zelcore::properties again = zelcapi::store_detail::read_json(out.view());
    if (!(again == tree)) std::abort();
    if (zelcapi::store_detail::digest_of("id", again).digest !=
        zelcapi::store_detail::digest_of("id", tree).digest)
      std::abort();
  }
  return 0;
}
