// Blobs, cipher texts and signatures made by the Crypto object, checked by the `openssl` command:
// the same bytes a program on the platform would exchange with it.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "pelmora/crypto/crypto.h"
#include "pelmora/crypto/internal/test_values.h"

namespace pelmora {
namespace {

using Bytes = Crypto::Bytes;
using namespace crypto_testing;  // NOLINT: error numbers and byte shorthands
namespace fs = std::filesystem;

struct CommandResult {
  int status = -1;
  std::string output;
};

// Runs a shell command and collects its standard output and error.
CommandResult RunCommand(const std::string& command) {
  CommandResult result;
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return result;
  std::array<char, 4096> buffer;
  for (size_t n; (n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) {
    result.output.append(buffer.data(), n);
  }
  int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

void WriteFile(const fs::path& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

Bytes ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class CryptoOpensslCommand : public ::testing::TestWithParam<CryptoEncryptionLevel> {
 protected:
  void SetUp() override {
    if (RunCommand("command -v openssl").status != 0) GTEST_SKIP() << "no openssl command";
    std::string pattern = (fs::temp_directory_path() / "pelmora-crypto-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
    crypto_.EncryptionLevel(GetParam());
    ASSERT_TRUE(crypto_.GenKeyPairs(public_blob_, private_blob_, password_));
    WriteFile(dir_ / "pub.blob", public_blob_);
  }
  void TearDown() override {
    if (!dir_.empty()) fs::remove_all(dir_);
  }

  std::string Path(const char* name) const { return (dir_ / name).string(); }

  // The -K argument of `openssl enc -rc4` for the password at this level: the MD5 of the
  // password, or at the base level its first 5 bytes followed by 11 zero bytes.
  std::string Rc4KeyHex() {
    Bytes digest;
    EXPECT_TRUE(crypto_.HashByte(password_, digest));
    std::string hex = crypto_.Byte2Hex(digest);
    if (GetParam() == CryptoBaseEncryption) hex = hex.substr(0, 10) + std::string(22, '0');
    return hex;
  }

  std::string Rc4Command(const char* in, const char* out) {
    return "openssl enc -rc4 -provider legacy -provider default -nosalt -K " + Rc4KeyHex() +
           " -in " + Path(in) + " -out " + Path(out);
  }

  // Decrypts the private blob with `openssl enc` and writes it, in the clear, as priv.blob.
  void WriteClearPrivateBlob() {
    WriteFile(dir_ / "body.enc", Bytes(private_blob_.begin() + 8, private_blob_.end()));
    CommandResult dec = RunCommand(Rc4Command("body.enc", "body"));
    ASSERT_EQ(dec.status, 0) << dec.output;
    Bytes clear(private_blob_.begin(), private_blob_.begin() + 8);
    Bytes body = ReadFile(dir_ / "body");
    clear.insert(clear.end(), body.begin(), body.end());
    WriteFile(dir_ / "priv.blob", clear);
  }

  Crypto crypto_;
  Bytes password_ = FromText("correct horse");
  Bytes public_blob_, private_blob_;
  fs::path dir_;
};

TEST_P(CryptoOpensslCommand, PublicBlobReadsAsMsblobWithTheSameModulus) {
  CommandResult res =
      RunCommand("openssl rsa -pubin -inform MSBLOB -noout -modulus -in " + Path("pub.blob"));
  ASSERT_EQ(res.status, 0) << res.output;
  Bytes modulus(public_blob_.rbegin(), public_blob_.rend() - 20);
  EXPECT_EQ(res.output, "Modulus=" + crypto_.Byte2Hex(modulus) + "\n");
}

TEST_P(CryptoOpensslCommand, PrivateBlobOpensWithRc4AndPassesTheKeyCheck) {
  WriteClearPrivateBlob();
  CommandResult check =
      RunCommand("openssl rsa -inform MSBLOB -check -noout -in " + Path("priv.blob"));
  EXPECT_EQ(check.status, 0) << check.output;
  EXPECT_NE(check.output.find("RSA key ok"), std::string::npos) << check.output;
  CommandResult priv =
      RunCommand("openssl rsa -inform MSBLOB -noout -modulus -in " + Path("priv.blob"));
  CommandResult pub =
      RunCommand("openssl rsa -pubin -inform MSBLOB -noout -modulus -in " + Path("pub.blob"));
  EXPECT_EQ(priv.output, pub.output);
}

TEST_P(CryptoOpensslCommand, CipherTextEqualsOpensslEncRc4) {
  Bytes plain(5000);
  ASSERT_TRUE(crypto_.GenRandom(static_cast<int32_t>(plain.size()), plain));
  Bytes cipher;
  ASSERT_TRUE(crypto_.EncryptByte(password_, plain, cipher));
  WriteFile(dir_ / "plain", plain);
  CommandResult enc = RunCommand(Rc4Command("plain", "cipher"));
  ASSERT_EQ(enc.status, 0) << enc.output;
  EXPECT_EQ(ReadFile(dir_ / "cipher"), cipher);
}

TEST_P(CryptoOpensslCommand, ReversedSignatureVerifiesWithDgstMd5) {
  Bytes message = FromText("Message to be signed"), signature;
  ASSERT_TRUE(crypto_.SignHash(private_blob_, message, signature, password_));
  WriteFile(dir_ / "msg", message);
  WriteFile(dir_ / "sig", Bytes(signature.rbegin(), signature.rend()));
  ASSERT_EQ(RunCommand("openssl rsa -pubin -inform MSBLOB -pubout -in " + Path("pub.blob") +
                       " -out " + Path("pub.pem"))
                .status,
            0);
  CommandResult verify = RunCommand("openssl dgst -md5 -verify " + Path("pub.pem") +
                                    " -signature " + Path("sig") + " " + Path("msg"));
  EXPECT_EQ(verify.status, 0) << verify.output;
  EXPECT_EQ(verify.output, "Verified OK\n");
}

TEST_P(CryptoOpensslCommand, OpensslSignaturesVerifyWithAndWithoutDigestInfo) {
  WriteClearPrivateBlob();
  Bytes message = FromText("from the other side"), digest;
  ASSERT_TRUE(crypto_.HashByte(message, digest));
  WriteFile(dir_ / "msg", message);
  WriteFile(dir_ / "digest", digest);
  CommandResult pem = RunCommand("openssl rsa -inform MSBLOB -in " + Path("priv.blob") + " -out " +
                                 Path("priv.pem"));
  ASSERT_EQ(pem.status, 0) << pem.output;
  // Without a digest option pkeyutl pads the bare digest; with one it adds the DigestInfo.
  for (const char* option : {"", " -pkeyopt digest:md5"}) {
    CommandResult sign =
        RunCommand("openssl pkeyutl -sign -inkey " + Path("priv.pem") + option + " -in " +
                   Path("digest") + " -out " + Path(*option ? "info.sig" : "bare.sig"));
    ASSERT_EQ(sign.status, 0) << sign.output;
  }
  for (const char* name : {"bare.sig", "info.sig"}) {
    Bytes signature = ReadFile(dir_ / name);
    std::reverse(signature.begin(), signature.end());
    EXPECT_TRUE(crypto_.VerifySignature(public_blob_, message, signature)) << name;
  }
}

INSTANTIATE_TEST_SUITE_P(Levels, CryptoOpensslCommand,
                         ::testing::Values(CryptoStrongEncryption, CryptoBaseEncryption),
                         [](const auto& info) {
                           return info.param == CryptoStrongEncryption ? "Strong" : "Base";
                         });

}  // namespace
}  // namespace pelmora
