#include "pelmorad/options.h"

#include "pelmora/common/error.h"
#include "pelmorad/config.h"

namespace pelmorad {
namespace {

[[noreturn]] void Refuse(std::string text) {
  throw pelmora::Error(87, std::move(text), "pelmorad");
}

}  // namespace

std::string_view UsageText() {
  return "usage: pelmorad [--config FILE] [--listen ADDR:PORT]... [--port-file FILE]\n"
         "                [--listen-tls ADDR:PORT]... [--tls-port-file FILE] [--check-config]\n"
         "                [--show-fingerprint] [--hash-password] [--version] [--help]\n"
         "  -c, --config FILE  configuration (default /etc/pelmora/pelmorad.toml)\n"
         "  --listen ADDR:PORT listen here instead of the configured addresses (port 0: any)\n"
         "  --port-file FILE   write the first bound plain port to FILE once listening\n"
         "  --listen-tls ADDR:PORT  listen for TLS here instead of the configured listen_tls\n"
         "  --tls-port-file FILE    write the first bound TLS port to FILE once listening\n"
         "  --check-config     check the configuration and its drives, then exit\n"
         "  --show-fingerprint print the TLS certificate's fingerprint (made first if needed)\n"
         "  --hash-password    read a password from standard input, print its hash\n"
         "  --version          print the version, commit and build type, then exit\n"
         "  --help             print this text, then exit\n";
}

Options ParseOptions(std::span<const std::string_view> arguments) {
  Options options;
  options.server.config_path = std::string(kDefaultConfigPath);
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    std::string_view argument = arguments[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= arguments.size()) Refuse(std::string(argument) + " needs a value");
      return std::string(arguments[++i]);
    };
    auto address = [&]() -> std::string {
      std::string text = value();
      if (!ParseListenAddress(text)) Refuse("bad listen address " + text);
      return text;
    };
    if (argument == "--config" || argument == "-c") {
      options.server.config_path = value();
    } else if (argument == "--listen") {
      options.server.listen.push_back(address());
    } else if (argument == "--port-file") {
      options.server.port_file = value();
    } else if (argument == "--listen-tls") {
      options.server.listen_tls.push_back(address());
    } else if (argument == "--tls-port-file") {
      options.server.tls_port_file = value();
    } else if (argument == "--show-fingerprint") {
      options.action = Action::kShowFingerprint;
    } else if (argument == "--check-config") {
      options.action = Action::kCheckConfig;
    } else if (argument == "--hash-password") {
      options.action = Action::kHashPassword;
    } else if (argument == "--version") {
      options.action = Action::kVersion;
    } else if (argument == "--help" || argument == "-h") {
      options.action = Action::kHelp;
    } else {
      Refuse("unknown argument " + std::string(argument));
    }
  }
  return options;
}

}  // namespace pelmorad
