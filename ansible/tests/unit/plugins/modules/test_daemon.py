# -*- coding: utf-8 -*-
# Copyright: kvstop developers
# GNU General Public License v3.0+ (see https://www.gnu.org/licenses/gpl-3.0.txt)
"""The modules' decisions for each answer kvctl can give. Every kvctl answer below is
checked against kvctl's JSON Schema first, so that the rows stay within its contract."""

from __future__ import absolute_import, division, print_function

__metaclass__ = type

import json
import os

import jsonschema
import pytest

from ansible.module_utils import basic
from ansible.module_utils.common.text.converters import to_bytes
from ansible_collections.zantor.kavelo.plugins.modules import daemon, daemon_info

KVCTL = '/usr/sbin/kvctl'
SOCK = '/var/zantorkv/audit'
with open(os.path.join(os.path.dirname(__file__), '..', '..', 'kvctl.schema.json')) as f:
    SCHEMA = json.load(f)

STATUS = {'online': True, 'collector_status': 'running',
          'collector_detail': [1, 'running', 'kvdsim', True, 'local', ''],
          'database_size': 1048576, 'database_size_text': '1048576',
          'despool_rate': None, 'despool_rate_text': 'n/a'}
STOPPED = {'stop': 'stopped', 'pid': 4242, 'waited_seconds': 0.104}


def error(kind, message, **more):
    return {'error': dict(kind=kind, message=message, socket=SOCK, **more)}


GONE = (1, error('not reachable', 'nothing listens'))
STILL = (2, error('failed', 'still running after 30 s (pid 4242)', pid=4242))
REFUSED = (2, error('refused', 'the daemon refused the request'))
PERMISSION = (2, error('permission', 'Permission denied'))

DAEMON_KEYS = {'changed', 'before', 'after', 'pid', 'waited_seconds', 'kvctl_rc', 'error', 'cmd', 'msg'}

# (name, arguments, check mode, kvctl's answers in order: exit status and object,
#  expected: failed, changed, before, after, pid, msg, kvctl command lines after "--json")
DAEMON_ROWS = [
    ('stop running', {'state': 'stopped'}, False, [(0, STOPPED)],
     (False, True, 'running', 'stopped', 4242, 'stopped (pid 4242 gone after 0.1 s)', [['stop', '--wait', '30']])),
    ('stop stopped', {'state': 'stopped', 'wait': 5}, False, [GONE],
     (False, False, 'stopped', 'stopped', None, 'not running', [['stop', '--wait', '5']])),
    ('stop, still running', {'state': 'stopped'}, False, [STILL],
     (True, False, None, None, 4242, 'stop failed: still running after 30 s (pid 4242)', [['stop', '--wait', '30']])),
    ('stop refused', {'state': 'stopped'}, False, [REFUSED],
     (True, False, None, None, None, 'stop failed: the daemon refused the request', [['stop', '--wait', '30']])),
    ('check stop running', {'state': 'stopped'}, True, [(0, STATUS)],
     (False, True, 'running', 'stopped', None, 'would stop', [['status']])),
    ('check stop stopped', {'state': 'stopped'}, True, [GONE],
     (False, False, 'stopped', 'stopped', None, 'not running', [['status']])),
    ('check stop, no permission', {'state': 'stopped'}, True, [PERMISSION],
     (True, False, None, None, None, 'status failed: Permission denied', [['status']])),
    ('reload running', {'state': 'reloaded', 'socket': SOCK, 'timeout': 5}, False, [(0, {'reload_result': 0})],
     (False, True, 'running', 'running', None, 'reloaded', [['--socket', SOCK, '--timeout', '5', 'reload']])),
    ('reload stopped', {'state': 'reloaded'}, False, [GONE],
     (True, False, None, None, None, 'reload failed: nothing listens', [['reload']])),
    ('check reload running', {'state': 'reloaded'}, True, [(0, STATUS)],
     (False, True, 'running', 'running', None, 'would reload', [['status']])),
    ('check reload stopped', {'state': 'reloaded'}, True, [GONE],
     (True, False, None, None, None, 'reload failed: nothing listens', [['status']])),
    # Anything but a JSON object is not kvctl's contract: a failure, whatever the exit status.
    ('stop, no JSON', {'state': 'stopped'}, False, [(0, 'stopped')],
     (True, False, None, None, None, 'stop failed: unexpected output from kvctl (exit status 0): nothing on standard error',
      [['stop', '--wait', '30']])),
    ('stop, error object with status 0', {'state': 'stopped'}, False, [(0, GONE[1])],
     (True, False, None, None, None, 'stop failed: unexpected output from kvctl (exit status 0): nothing on standard error',
      [['stop', '--wait', '30']])),
    ('stop, status 1 without an error object', {'state': 'stopped'}, False, [(1, STOPPED)],
     (True, False, None, None, None, 'stop failed: unexpected output from kvctl (exit status 1): nothing on standard error',
      [['stop', '--wait', '30']])),
]


class Exit(Exception):
    def __init__(self, failed, result):
        super(Exit, self).__init__(result.get('msg'))
        self.failed, self.result = failed, result


def run_module(monkeypatch, module, args, check, answers):
    """The module's main() against kvctl answers; returns (failed, result, command lines run)."""
    monkeypatch.setattr(basic, '_ANSIBLE_ARGS', to_bytes(json.dumps({'ANSIBLE_MODULE_ARGS': dict(
        args, _ansible_check_mode=check, _ansible_diff=True)})))
    monkeypatch.setattr(basic.AnsibleModule, 'get_bin_path', lambda *a, **k: KVCTL)
    calls, answers = [], list(answers)

    def run_command(self, cmd, *a, **k):
        calls.append(cmd)
        rc, obj = answers.pop(0)
        if isinstance(obj, str):
            return rc, obj, ''
        jsonschema.validate(obj, SCHEMA)
        return rc, json.dumps(obj), ''

    def leave(failed):
        def exit(self, **result):
            raise Exit(failed, result)
        return exit

    monkeypatch.setattr(basic.AnsibleModule, 'run_command', run_command)
    monkeypatch.setattr(basic.AnsibleModule, 'exit_json', leave(False))
    monkeypatch.setattr(basic.AnsibleModule, 'fail_json', leave(True))
    with pytest.raises(Exit) as done:
        module.main()
    assert answers == []
    return done.value.failed, done.value.result, calls


@pytest.mark.parametrize('name, args, check, answers, want', DAEMON_ROWS, ids=[r[0] for r in DAEMON_ROWS])
def test_daemon(monkeypatch, name, args, check, answers, want):
    failed, result, calls = run_module(monkeypatch, daemon, args, check, answers)
    result.pop('invocation', None)
    diff = result.pop('diff', None)
    assert set(result) == DAEMON_KEYS
    assert (failed, result['changed'], result['before'], result['after'], result['pid'], result['msg'],
            [c[2:] for c in calls]) == want
    assert result['cmd'] == calls and [c[:2] for c in calls] == [[KVCTL, '--json']] * len(calls)
    assert result['kvctl_rc'] == answers[-1][0]
    # kvctl's error object, as it came, on a failure; none otherwise.
    answer = answers[-1][1]
    if want[5].startswith('stop failed: unexpected output'):
        assert result['error'] == {'kind': 'failed', 'message': want[5][len('stop failed: '):], 'socket': None}
    else:
        assert result['error'] == (answer['error'] if failed else None)
    assert result['waited_seconds'] == (0.104 if result['pid'] and not failed else None)
    assert diff == (None if failed else {'before': 'state: %s\n' % want[2], 'after': 'state: %s\n' % want[3]})


# (name, kvctl's answer, expected: failed, running, status, msg)
INFO_ROWS = [
    ('running', (0, STATUS), (False, True, STATUS, 'running')),
    ('not running', GONE, (False, False, None, 'not running')),
    ('refused', REFUSED, (True, False, None, 'status failed: the daemon refused the request')),
]


@pytest.mark.parametrize('name, answer, want', INFO_ROWS, ids=[r[0] for r in INFO_ROWS])
def test_daemon_info(monkeypatch, name, answer, want):
    failed, result, calls = run_module(monkeypatch, daemon_info, {}, False, [answer])
    result.pop('invocation', None)
    assert set(result) == {'changed', 'running', 'status', 'kvctl_rc', 'error', 'cmd', 'msg'}
    assert (failed, result['running'], result['status'], result['msg']) == want
    assert result['changed'] is False and result['kvctl_rc'] == answer[0]
    assert calls == [[KVCTL, '--json', 'status']] and result['cmd'] == calls[0]
    assert result['error'] == (None if answer[0] == 0 else answer[1]['error'])
