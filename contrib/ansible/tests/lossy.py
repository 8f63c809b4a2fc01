"""A chroot connection that is lost, and stays so, as soon as the uninstaller ran.

The message is one that Ansible would take for a template.
"""

import os

from ansible.errors import AnsibleConnectionFailure
from ansible_collections.community.general.plugins.connection import chroot

DOCUMENTATION = chroot.DOCUMENTATION.replace("name: chroot", "name: lossy")


class Connection(chroot.Connection):
    transport = "lossy"

    def exec_command(self, cmd, in_data=None, sudoable=False):
        lost = self.chroot + "/proc/lost"
        if not os.path.exists(lost):
            answer = super().exec_command(cmd, in_data, sudoable)
            if b"ansible.modules.command" not in (in_data or b""):
                return answer
            open(lost, "w").close()
        raise AnsibleConnectionFailure("cut {{ 7*7 }}")
