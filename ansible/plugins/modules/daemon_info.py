#!/usr/bin/python
# -*- coding: utf-8 -*-
# Copyright: kvstop developers
# GNU General Public License v3.0+ (see https://www.gnu.org/licenses/gpl-3.0.txt)

from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r'''
---
module: daemon_info
short_description: The Kavelo audit daemon's status
version_added: 1.0.0
description:
  - Asks the Kavelo audit daemon for its status with C(kvctl --json status), reading only its
    exit status and its JSON object. Changes nothing.
  - A daemon that is not running is a result (C(running=false)), not a failure.
options: {}
extends_documentation_fragment:
  - zantor.kavelo.kvctl
author:
  - kvstop developers (!UNKNOWN)
'''

EXAMPLES = r'''
- name: Read the daemon's status
  zantor.kavelo.daemon_info:
  register: kavelo

- name: Say when its collector is not running
  ansible.builtin.debug:
    msg: "collector {{ kavelo.status.collector_status }}"
  when: kavelo.running and kavelo.status.collector_status != 'running'
'''

RETURN = r'''
running:
  description: Whether the daemon answered.
  returned: always
  type: bool
  sample: true
status:
  description: kvctl's status object (see C(/usr/share/kvctl/kvctl.schema.json)); null when the daemon did not answer.
  returned: always
  type: dict
  sample: {"online": true, "collector_status": "running", "collector_detail": [1, "running", "kvdsim", true, "local", ""],
           "database_size": 1048576, "database_size_text": "1048576", "despool_rate": 0, "despool_rate_text": "0"}
kvctl_rc:
  description: kvctl's exit status (0 done, 1 not reachable, 2 failed).
  returned: always
  type: int
  sample: 0
error:
  description: kvctl's error object (kind, message, socket) when it failed; null otherwise.
  returned: always
  type: dict
  sample: {"kind": "not reachable", "message": "no daemon listens on the socket", "socket": "/var/zantorkv/audit"}
cmd:
  description: The kvctl command line run.
  returned: always
  type: list
  elements: str
  sample: ["/usr/sbin/kvctl", "--json", "status"]
msg:
  description: The daemon's state, or why the status could not be read.
  returned: always
  type: str
  sample: running
'''

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.zantor.kavelo.plugins.module_utils import kvctl


def main():
    module = AnsibleModule(argument_spec=dict(**kvctl.COMMON_ARGS), supports_check_mode=True)
    rc, status, error, cmd = kvctl.run(module, 'status')
    result = dict(changed=False, running=error is None, status=status, kvctl_rc=rc, error=error, cmd=cmd,
                  msg='running' if error is None else 'not running')
    if error is not None and not kvctl.not_running(rc, error):
        result['msg'] = 'status failed: %s' % error['message']
        module.fail_json(**result)
    module.exit_json(**result)


if __name__ == '__main__':
    main()
