// `pelmora crypto`: the Crypto object on files and the standard streams.
//
//   pelmora crypto keygen --public PUB --private PRIV [--level L] [--password-file F]
//   pelmora crypto encrypt|decrypt [FILE] [-o OUT] [--hex] [--level L] [--password-file F]
//   pelmora crypto sign --key PRIV [FILE] [-o SIG] [--hex] [--level L] [--password-file F]
//   pelmora crypto verify --key PUB --signature SIG [FILE] [--level L]
//   pelmora crypto hash [FILE] [-o OUT] [--hex]
//   pelmora crypto random LENGTH [-o OUT] [--hex]
//   pelmora crypto hex [FILE] [-o OUT]        bytes to upper-case hexadecimal text
//   pelmora crypto unhex [FILE] [-o OUT]      hexadecimal text (white space ignored) to bytes
//
// FILE "-" or left out is standard input; output goes to standard output unless -o names a file,
// raw or (--hex) as one line of hexadecimal digits. Passwords come from --password-file (its
// contents without the trailing line end) or are typed at the terminal with echo off.
// Exit status: 0 on success (verify: only for a valid signature), 1 when the operation fails
// (verify: the signature does not match), 2 for usage, file, password and other errors. Failures
// print the error number and its text on standard error.
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include "pelmora/common/error.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/crypto/crypto.h"
#include "tools/pelmora/commands.h"
#include "tools/pelmora/crypto_io.h"

namespace pelmora_tool {
namespace {

using pelmora::Crypto;

constexpr int32_t kBadSignature = -2146893818;  // NTE_BAD_SIGNATURE

// The command line of one crypto subcommand.
struct CryptoOptions {
  std::string name;
  std::string level = "strong";
  std::string password_file;
  bool hex = false;
  std::string input = "-";
  std::string output = "-";
  std::string key;
  std::string signature;
  std::string public_file;
  std::string private_file;
  int32_t length = 0;
  bool sum = false;
};

using CryptoWork = std::function<int(Crypto&, const CryptoOptions&)>;

// Prints the object's last failure and returns `status`.
int Failed(const Crypto& crypto, const CryptoOptions& o, int status = 1) {
  int32_t number = crypto.LastError();
  std::fprintf(stderr, "pelmora: crypto %s: error %d: %s\n", o.name.c_str(), number,
               pelmora::DescribeError(number).c_str());
  return status;
}

// Runs `work` on a Crypto at the chosen level; raised errors end with status 2.
int Run(const CryptoOptions& o, const CryptoWork& work) {
  try {
    Crypto crypto;
    crypto.EncryptionLevel(o.level == "base" ? pelmora::CryptoBaseEncryption
                                             : pelmora::CryptoStrongEncryption);
    return work(crypto, o);
  } catch (const pelmora::Error& e) {
    std::fprintf(stderr, "pelmora: crypto %s: error %d: %s\n", o.name.c_str(), e.Number(),
                 e.Description().c_str());
  } catch (const CommandError& e) {
    std::fprintf(stderr, "pelmora: crypto %s: %s\n", o.name.c_str(), e.what());
  }
  return 2;
}

int Keygen(Crypto& crypto, const CryptoOptions& o) {
  Bytes password = ReadPassword(o.password_file, "Password for the private key: ");
  Bytes public_blob, private_blob;
  bool ok = crypto.GenKeyPairs(public_blob, private_blob, password);
  Wipe(password);
  if (!ok) return Failed(crypto, o);
  // The private blob is readable by its owner only; neither file replaces an existing one.
  WriteNewFile(o.public_file, public_blob, 0644);
  try {
    WriteNewFile(o.private_file, private_blob, 0600);
  } catch (const CommandError&) {
    std::remove(o.public_file.c_str());
    throw;
  }
  return 0;
}

// Runs `op` with the password, wipes it, and writes what `op` made to the output.
int WithPassword(Crypto& crypto, const CryptoOptions& o, const char* prompt,
                 const std::function<bool(const Bytes& password, Bytes& output)>& op) {
  Bytes password = ReadPassword(o.password_file, prompt);
  Bytes output;
  bool ok = op(password, output);
  Wipe(password);
  if (!ok) return Failed(crypto, o);
  WriteSink(o.output, output, o.hex);
  return 0;
}

// encrypt and decrypt: `encrypt` selects the direction.
int Crypt(Crypto& crypto, const CryptoOptions& o, bool encrypt) {
  Bytes data = ReadSource(o.input);
  return WithPassword(crypto, o, "Password: ", [&](const Bytes& password, Bytes& output) {
    return encrypt ? crypto.EncryptByte(password, data, output)
                   : crypto.DecryptByte(password, data, output);
  });
}

int Sign(Crypto& crypto, const CryptoOptions& o) {
  Bytes key = ReadSource(o.key);
  Bytes data = ReadSource(o.input);
  return WithPassword(
      crypto, o, "Password for the private key: ", [&](const Bytes& password, Bytes& signature) {
        return crypto.SignHash(key, data, signature, password);
      });
}

int Verify(Crypto& crypto, const CryptoOptions& o) {
  Bytes key = ReadSource(o.key);
  Bytes signature = ReadSource(o.signature);
  Bytes data = ReadSource(o.input);
  if (!crypto.VerifySignature(key, data, signature)) {
    return Failed(crypto, o, crypto.LastError() == kBadSignature ? 1 : 2);
  }
  std::printf("signature valid\n");
  return 0;
}

int Hash(Crypto& crypto, const CryptoOptions& o) {
  Bytes digest;
  if (!crypto.HashByte(ReadSource(o.input), digest)) return Failed(crypto, o);
  if (o.sum) {
    // md5sum's line: lower-case digits, two blanks, the file name ("-" for standard input).
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string line;
    for (uint8_t b : digest) line += {kDigits[b >> 4], kDigits[b & 15]};
    line += "  " + (o.input.empty() ? std::string("-") : o.input) + "\n";
    WriteSink(o.output, Bytes(line.begin(), line.end()), false);
    return 0;
  }
  WriteSink(o.output, digest, o.hex);
  return 0;
}

int Random(Crypto& crypto, const CryptoOptions& o) {
  Bytes random;
  if (!crypto.GenRandom(o.length, random)) return Failed(crypto, o);
  WriteSink(o.output, random, o.hex);
  return 0;
}

int Hex(Crypto&, const CryptoOptions& o) {
  WriteSink(o.output, ReadSource(o.input), true);
  return 0;
}

int Unhex(Crypto& crypto, const CryptoOptions& o) {
  std::string text;
  for (uint8_t c : ReadSource(o.input)) {
    if (!std::isspace(c)) text.push_back(static_cast<char>(c));
  }
  Bytes bytes = crypto.Hex2Byte(text);
  if (bytes.empty() && !text.empty())
    throw CommandError("the input is not hexadecimal digit pairs");
  WriteSink(o.output, bytes, false);
  return 0;
}

// Which options a subcommand takes.
enum Takes : unsigned {
  kLevel = 1,
  kPassword = 2,
  kInput = 4,
  kOutput = 8,
  kHexOutput = 16,
};

void AddOptions(CLI::App& sub, CryptoOptions& o, unsigned takes) {
  if (takes & kLevel) {
    sub.add_option("--level", o.level, "Provider level: strong (default) or base")
        ->check(CLI::IsMember({"strong", "base"}));
  }
  if (takes & kPassword) {
    sub.add_option("--password-file", o.password_file,
                   "File holding the password (default: typed at the terminal)");
  }
  if (takes & kInput) sub.add_option("FILE", o.input, "Input file, - for standard input");
  if (takes & kOutput)
    sub.add_option("-o,--output", o.output, "Output file, - for standard output");
  if (takes & kHexOutput) sub.add_flag("--hex", o.hex, "Write hexadecimal text, not raw bytes");
}

// Adds one crypto subcommand running `work`; returns it for its own options.
CLI::App* AddLeaf(CLI::App& crypto, CommandAction& action, const std::string& name,
                  const std::string& help, unsigned takes, CryptoWork work,
                  std::shared_ptr<CryptoOptions> o) {
  o->name = name;
  CLI::App* sub = crypto.add_subcommand(name, help);
  AddOptions(*sub, *o, takes);
  sub->callback([&action, o, work] { action = [o, work] { return Run(*o, work); }; });
  return sub;
}

}  // namespace

void AddCryptoCommand(CLI::App& app, CommandAction& action) {
  CLI::App* crypto = app.add_subcommand("crypto", "Keys, encryption, signatures and hashes");
  crypto->require_subcommand(1);
  crypto->footer(
      "These algorithms are here for compatibility with the keys and data of existing systems;\n"
      "they are not strong enough to protect new secrets.\n"
      "Passwords: --password-file, else PELMORA_PASSWORD, else typed at the terminal.");
  const unsigned kData = kInput | kOutput | kHexOutput;
  auto keygen = std::make_shared<CryptoOptions>();
  CLI::App* sub = AddLeaf(*crypto, action, "keygen",
                          "Make a signature key pair (new files only; the private one mode 600)",
                          kLevel | kPassword, Keygen, keygen);
  sub->add_option("--public", keygen->public_file, "File for the public key blob")->required();
  sub->add_option("--private", keygen->private_file, "File for the encrypted private key blob")
      ->required();
  AddLeaf(
      *crypto, action, "encrypt", "Encrypt data with a password", kLevel | kPassword | kData,
      [](Crypto& c, const CryptoOptions& o) { return Crypt(c, o, true); },
      std::make_shared<CryptoOptions>());
  AddLeaf(
      *crypto, action, "decrypt", "Decrypt data with a password", kLevel | kPassword | kData,
      [](Crypto& c, const CryptoOptions& o) { return Crypt(c, o, false); },
      std::make_shared<CryptoOptions>());
  auto sign = std::make_shared<CryptoOptions>();
  sub = AddLeaf(*crypto, action, "sign", "Sign data with a private key blob",
                kLevel | kPassword | kData, Sign, sign);
  sub->add_option("--key", sign->key, "Encrypted private key blob")->required();
  auto verify = std::make_shared<CryptoOptions>();
  sub = AddLeaf(*crypto, action, "verify", "Check a signature (exit 0 only when valid)",
                kLevel | kInput, Verify, verify);
  sub->add_option("--key", verify->key, "Public key blob")->required();
  sub->add_option("--signature", verify->signature, "Signature file (raw bytes)")->required();
  auto hash = std::make_shared<CryptoOptions>();
  sub = AddLeaf(*crypto, action, "hash", "MD5 of data", kData, Hash, hash);
  sub->add_flag("--sum", hash->sum, "One line as md5sum prints it: lower-case hex and the name")
      ->excludes("--hex");
  auto random = std::make_shared<CryptoOptions>();
  sub = AddLeaf(*crypto, action, "random", "Random bytes", kOutput | kHexOutput, Random, random);
  sub->add_option("LENGTH", random->length, "Number of bytes")->required();
  AddLeaf(*crypto, action, "hex", "Bytes to hexadecimal text", kInput | kOutput, Hex,
          std::make_shared<CryptoOptions>());
  AddLeaf(*crypto, action, "unhex", "Hexadecimal text to bytes", kInput | kOutput, Unhex,
          std::make_shared<CryptoOptions>());
}

}  // namespace pelmora_tool
