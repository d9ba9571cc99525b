// The library's built-in administration secrets: the service account and its password, which
// AdminClient logs in with, and the access code that a caller must give to run a remote command.
// Their values come from the build configuration (cache variables PELMORA_SERVICE_ACCOUNT,
// PELMORA_SERVICE_PASSWORD, PELMORA_ACCESS_CODE, random per build tree when unset) and are
// assembled at run time; they are never written in the source. Shared by the client and the
// service of the same build. Exported from libpelmora.so although not installed: the tool checks
// a command's access code against it and the service tests configure the built-in account from
// it, and both link the shared library. The library holds the values either way (AdminClient
// logs in with them), so the export hands out nothing the file did not already contain.
#ifndef PELMORA_ADMIN_INTERNAL_BUILT_IN_SECRETS_H_
#define PELMORA_ADMIN_INTERNAL_BUILT_IN_SECRETS_H_

#include <string>

#include "pelmora/platform/export.h"

namespace pelmora::admin::internal {

// The service account's name, plain (EncodeCredential gives its wire form). Never empty.
PELMORA_API std::string BuiltInAccount();

// The service account's password, plain. Never empty.
PELMORA_API std::string BuiltInPassword();

// The access code for remote commands, compared exactly (case-sensitive). Never empty.
PELMORA_API std::string BuiltInAccessCode();

}  // namespace pelmora::admin::internal

#endif  // PELMORA_ADMIN_INTERNAL_BUILT_IN_SECRETS_H_
