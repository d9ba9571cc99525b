// The late-bound transport settings shared by RCFSO and AdminClient: Tls, TlsFingerprint,
// TlsCaFile, TlsKnownHosts, TlsTrustNew, TlsClientCertificate, TlsClientKey (read/write, each one
// field of TlsClientSettings) and TlsPresentedFingerprint (read-only).
#ifndef PELMORA_ADMIN_INTERNAL_TLS_PROPERTIES_H_
#define PELMORA_ADMIN_INTERNAL_TLS_PROPERTIES_H_

#include <string>
#include <utility>

#include "pelmora/admin/rcfso.h"
#include "pelmora/automation/class_binder.h"

namespace pelmora::admin::internal {

// Adds the properties to `binder`; `fso` gives the RCFSO of an object of the class.
template <typename O>
automation::ClassBinder<O>& AddTlsProperties(automation::ClassBinder<O>& binder,
                                             RCFSO& (*fso)(O&)) {
  using S = const std::string&;
  auto text = [&binder, fso](const char* name, std::string TlsClientSettings::*field) {
    binder.Property(
        name, [fso, field](O& o) { return fso(o).tls().*field; },
        [fso, field](O& o, S value) {
          TlsClientSettings settings = fso(o).tls();
          settings.*field = value;
          fso(o).set_tls(std::move(settings));
        });
  };
  auto flag = [&binder, fso](const char* name, bool TlsClientSettings::*field) {
    binder.Property(
        name, [fso, field](O& o) { return fso(o).tls().*field; },
        [fso, field](O& o, bool value) {
          TlsClientSettings settings = fso(o).tls();
          settings.*field = value;
          fso(o).set_tls(std::move(settings));
        });
  };
  flag("Tls", &TlsClientSettings::enabled);
  text("TlsFingerprint", &TlsClientSettings::fingerprint);
  text("TlsCaFile", &TlsClientSettings::ca_file);
  text("TlsKnownHosts", &TlsClientSettings::known_hosts);
  flag("TlsTrustNew", &TlsClientSettings::trust_new);
  text("TlsClientCertificate", &TlsClientSettings::client_certificate);
  text("TlsClientKey", &TlsClientSettings::client_key);
  return binder.Property("TlsPresentedFingerprint",
                         [fso](O& o) { return fso(o).PresentedFingerprint(); });
}

}  // namespace pelmora::admin::internal

#endif  // PELMORA_ADMIN_INTERNAL_TLS_PROPERTIES_H_
