#include "pelmora/common/error.h"

#include <utility>

#include "pelmora/common/error_texts.h"

namespace pelmora {

Error::Error(int32_t number, std::string description, std::string source)
    : std::runtime_error(description),
      number_(number),
      description_(std::move(description)),
      source_(std::move(source)) {}

Error RuntimeError(int32_t number, std::string source) {
  auto text = RuntimeErrorText(number);
  return Error(number, text ? std::string(*text) : NoDescriptionText(number), std::move(source));
}

}  // namespace pelmora
