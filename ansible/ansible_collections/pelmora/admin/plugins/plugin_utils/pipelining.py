"""Pipelining only where the service can take it: a service with the extended command exchange
pipes module input to a command's standard input; an older one cannot, so the connection's
"pipelining" option reads false there whatever the setting.
"""

import contextlib

from ansible.errors import AnsibleConnectionFailure


class ServicePipelining:
    """A mixin for the connection plugin, which provides _connect() (logs in once per task and
    returns the connection, whose `_extended` then says whether the service has the extended
    exchange) and sets `_reporting` to False in its constructor."""

    def get_option(self, option, hostvars=None):
        value = super().get_option(option, hostvars)
        if option == "pipelining" and value and not self._reporting:
            # Only a service with the extended exchange takes input. A failed login is reported
            # where Ansible expects it (the host unreachable), by the next call that connects.
            with contextlib.suppress(AnsibleConnectionFailure):
                return self._connect()._extended
        return value

    def update_vars(self, variables):
        # Ansible reads every option here to report it back, whether the task uses the host
        # or not: that must not log in.
        self._reporting = True
        try:
            super().update_vars(variables)
        finally:
            self._reporting = False
