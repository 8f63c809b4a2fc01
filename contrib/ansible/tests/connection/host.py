"""A connection to a throwaway host.

Once a run has a place there, as many commands fail as the file HOST.cuts says. The message is one
that Ansible would take for a template.
"""

import os
import shlex
from pathlib import Path

from ansible.errors import AnsibleConnectionFailure
from ansible.plugins.connection import local

DOCUMENTATION = local.DOCUMENTATION.replace("name: local", "name: host")
ENTER = str(Path(__file__).parents[4] / "tests/host/enter")


class Connection(local.Connection):
    transport = "host"

    def exec_command(self, cmd, in_data=None, sudoable=True):
        root = self._play_context.remote_addr
        cuts = Path(root + ".cuts")
        if os.path.exists(root + "/root/valta-uninstall/run/pid") and int(cuts.read_text()):
            cuts.write_text(str(int(cuts.read_text()) - 1))
            raise AnsibleConnectionFailure("cut {{ 7*7 }}")
        enter = shlex.join([ENTER, "-m", root, "/bin/sh", "-c", cmd])
        return super().exec_command(enter, in_data, sudoable)

    def put_file(self, in_path, out_path):
        super().put_file(in_path, self._play_context.remote_addr + out_path)

    def fetch_file(self, in_path, out_path):
        super().put_file(self._play_context.remote_addr + in_path, out_path)
