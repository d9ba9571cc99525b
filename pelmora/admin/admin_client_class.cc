// The late-bound face of AdminClient: creatable as "Pelmora.AdminClient", members in interface
// order, then ServicePort and the transport settings of its RCFSO. RemoteAppRootPath's errors
// (9000, 76) reach the caller as raised errors; every other member reports through
// ErrNumber/ErrDescription.
#include <cstdint>
#include <string>

#include "pelmora/admin/admin_client.h"
#include "pelmora/admin/internal/tls_properties.h"
#include "pelmora/automation/class_binder.h"

namespace pelmora::admin {
namespace {

using automation::ClassBinder;
using automation::ClassRegistrar;
using S = const std::string&;

bool RemoteCommandCallByName(AdminClient& client, S sCommandLine, int32_t lTimeout, S sPassword,
                             std::string& sStdout, int32_t& lExitCode) {
  return client.RemoteCommandCall(sCommandLine, lTimeout, sPassword, sStdout, lExitCode);
}

RCFSO& FsoOf(AdminClient& client) { return client.FileSystemClient(); }

const ClassRegistrar kAdminClientClass(internal::AddTlsProperties(
    ClassBinder<AdminClient>("Pelmora.AdminClient")
        .Property("ErrNumber", &AdminClient::ErrNumber)
        .Property("ErrDescription", &AdminClient::ErrDescription)
        .Property("Product", &AdminClient::Product, &AdminClient::SetProduct)
        .Method("Connect", [](AdminClient& client, S Host) { return client.Connect(Host); })
        .Property("RemoteSystemTime", &AdminClient::RemoteSystemTime)
        .Method("RemoteCommandCall", &RemoteCommandCallByName)
        .Property("RemoteAppRootPath", &AdminClient::RemoteAppRootPath)
        .Property("ServicePort", &AdminClient::ServicePort, &AdminClient::SetServicePort),
    &FsoOf));

}  // namespace
}  // namespace pelmora::admin
