// The encodings of a state's workflows as its last save took them. A workflow changes in place,
// so a save used to copy and encode every workflow; a workflow whose object and change stamp are
// those of its encoding is now not encoded again, and the store is given the very tree that it
// committed, which it skips without reading it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <boost/weak_ptr.hpp>

#include "zelcapi/state.h"
#include "zelcore/properties.h"

namespace zelcapi::detail {

class saved_workflows {
 public:
  using encoded_list = std::vector<std::pair<std::string, zelcore::properties>>;

  // The encodings of `workflows` in id order: those still current as they are, the others made
  // anew. Remembers them for the next save and forgets the ids no longer there.
  encoded_list take(const state::workflow_map& workflows);

 private:
  struct encoding {
    boost::weak_ptr<zelworkflow::workflow_info> workflow;  // the object encoded
    std::uint64_t stamp = 0;                               // its change stamp when encoded
    zelcore::properties tree;
  };

  std::map<std::string, encoding> encodings_;
};

}  // namespace zelcapi::detail
