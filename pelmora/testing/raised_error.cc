#include "pelmora/testing/raised_error.h"

namespace pelmora::testing {

Error RaisedError(const std::function<void()>& call) {
  try {
    call();
  } catch (const Error& e) {
    return e;
  }
  return Error(0, "");
}

}  // namespace pelmora::testing
