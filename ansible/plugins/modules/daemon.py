#!/usr/bin/python
# -*- coding: utf-8 -*-
# Copyright: kvstop developers
# GNU General Public License v3.0+ (see https://www.gnu.org/licenses/gpl-3.0.txt)

from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r'''
---
module: daemon
short_description: Stop or reload the Kavelo audit daemon
version_added: 1.0.0
description:
  - Brings the Kavelo audit daemon to C(state) with C(kvctl --json), reading only its exit
    status and its JSON object.
  - A stop counts as done only once the daemon's process is gone, not when the daemon has
    answered the stop request.
options:
  state:
    description:
      - C(stopped) stops a running daemon and waits up to C(wait) seconds for its process to
        end; a daemon that is not running is left alone (not changed).
      - C(reloaded) has a running daemon reload its properties (always changed); a daemon that
        is not running is a failure.
    type: str
    required: true
    choices: [stopped, reloaded]
  wait:
    description:
      - Seconds to wait for the daemon's process to end after the stop request, with
        C(state=stopped). A process still running then is a failure.
    type: int
    default: 30
extends_documentation_fragment:
  - zantor.kavelo.kvctl
attributes:
  diff_mode:
    description: The daemon's state before and after.
    support: full
author:
  - kvstop developers (!UNKNOWN)
'''

EXAMPLES = r'''
- name: Stop the audit daemon and wait up to a minute for its process
  zantor.kavelo.daemon:
    state: stopped
    wait: 60

- name: Have the daemon on another socket reload its properties
  zantor.kavelo.daemon:
    state: reloaded
    socket: /run/kavelo/audit
    timeout: 5
'''

RETURN = r'''
before:
  description: The daemon's state before the task, C(running) or C(stopped); null when unknown (a failure).
  returned: always
  type: str
  sample: running
after:
  description: The daemon's state after the task (in check mode, what it would be); null when unknown.
  returned: always
  type: str
  sample: stopped
pid:
  description: The process id of the daemon that was stopped, or of the one still running when the wait ran out; null when neither is known.
  returned: always
  type: int
  sample: 4242
waited_seconds:
  description: Seconds from the stop request until the daemon's process was gone; null when none was stopped.
  returned: always
  type: float
  sample: 0.104
kvctl_rc:
  description: The exit status of the last kvctl run (0 done, 1 not reachable, 2 failed).
  returned: always
  type: int
  sample: 0
error:
  description: kvctl's error object (kind, message, socket) when that run failed; null otherwise.
  returned: always
  type: dict
  sample: {"kind": "failed", "message": "still running after 30 s (pid 4242)", "socket": "/var/zantorkv/audit"}
cmd:
  description: The kvctl command lines run, in order.
  returned: always
  type: list
  elements: list
  sample: [["/usr/sbin/kvctl", "--json", "stop", "--wait", "30"]]
msg:
  description: What was done, or why it failed.
  returned: always
  type: str
  sample: stopped (pid 4242 gone after 0.1 s)
'''

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.zantor.kavelo.plugins.module_utils import kvctl

RUNNING = 'running'
STOPPED = 'stopped'
WOULD = {'stopped': 'would stop', 'reloaded': 'would reload'}


def call(module, result, *args):
    """kvctl --json ARGS, recorded in `result`; returns (result object, error object)."""
    rc, obj, error, cmd = kvctl.run(module, *args)
    result['cmd'].append(cmd)
    result.update(kvctl_rc=rc, error=error)
    return obj, error


def failure(result, what, error):
    result['msg'] = '%s failed: %s' % (what, error['message'])
    result['pid'] = error.get('pid')
    return error


def act(module, result):
    """Fills `result` in; returns kvctl's error object when the task failed, else None."""
    state = module.params['state']
    if module.check_mode:
        # Only the status: what a stop or a reload would meet.
        error = call(module, result, 'status')[1]
        running = error is None
        if not running and (state == 'reloaded' or not kvctl.not_running(result['kvctl_rc'], error)):
            return failure(result, 'reload' if state == 'reloaded' else 'status', error)
        result.update(before=RUNNING if running else STOPPED,
                      after=RUNNING if state == 'reloaded' else STOPPED, changed=running, error=None,
                      msg=WOULD[state] if running else 'not running')
        return None

    if state == 'reloaded':
        error = call(module, result, 'reload')[1]
        if error is not None:
            return failure(result, 'reload', error)
        result.update(before=RUNNING, after=RUNNING, changed=True, msg='reloaded')
        return None

    obj, error = call(module, result, 'stop', '--wait', str(module.params['wait']))
    if error is None:
        result.update(before=RUNNING, after=STOPPED, changed=True, pid=obj['pid'],
                      waited_seconds=obj['waited_seconds'],
                      msg='stopped (pid %d gone after %.1f s)' % (obj['pid'], obj['waited_seconds']))
        return None
    if not kvctl.not_running(result['kvctl_rc'], error):
        return failure(result, 'stop', error)
    result.update(before=STOPPED, after=STOPPED, error=None, msg='not running')
    return None


def main():
    module = AnsibleModule(
        argument_spec=dict(
            state=dict(type='str', required=True, choices=['stopped', 'reloaded']),
            wait=dict(type='int', default=30),
            **kvctl.COMMON_ARGS
        ),
        supports_check_mode=True,
    )
    result = dict(changed=False, before=None, after=None, pid=None, waited_seconds=None, kvctl_rc=None,
                  error=None, cmd=[], msg='')
    error = act(module, result)
    if module._diff and error is None:
        result['diff'] = dict(before='state: %s\n' % result['before'], after='state: %s\n' % result['after'])
    if error is not None:
        module.fail_json(**result)
    module.exit_json(**result)


if __name__ == '__main__':
    main()
