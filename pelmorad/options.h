// The service's command line:
//
//   pelmorad [--config FILE] [--listen ADDR:PORT]... [--port-file FILE]
//            [--listen-tls ADDR:PORT]... [--tls-port-file FILE] [--check-config]
//            [--show-fingerprint] [--hash-password] [--version] [--help]
#ifndef PELMORAD_OPTIONS_H_
#define PELMORAD_OPTIONS_H_

#include <span>
#include <string>
#include <string_view>

#include "pelmorad/server.h"

namespace pelmorad {

// What to do.
enum class Action { kServe, kCheckConfig, kShowFingerprint, kHashPassword, kHelp, kVersion };

struct Options {
  Action action = Action::kServe;
  ServerOptions server;
};

// The usage text printed for --help and after a command-line error.
std::string_view UsageText();

// Parses the arguments after the program name. Throws pelmora::Error 87 naming the argument for
// an unknown option, a missing value or a malformed --listen address.
Options ParseOptions(std::span<const std::string_view> arguments);

}  // namespace pelmorad

#endif  // PELMORAD_OPTIONS_H_
