// Catching the numbered error a call raises, for assertions on its number, text and source.
//
//   Error e = RaisedError([&] { socket.SetProtocol(2); });
//   EXPECT_EQ(e.Number(), 380);
//   EXPECT_EQ(e.Description(), "Invalid property value");
#ifndef PELMORA_TESTING_RAISED_ERROR_H_
#define PELMORA_TESTING_RAISED_ERROR_H_

#include <functional>

#include "pelmora/common/error.h"

namespace pelmora::testing {

// The pelmora::Error that `call` raises, or Error(0, "") when it returns normally. Other
// exceptions propagate.
Error RaisedError(const std::function<void()>& call);

}  // namespace pelmora::testing

#endif  // PELMORA_TESTING_RAISED_ERROR_H_
