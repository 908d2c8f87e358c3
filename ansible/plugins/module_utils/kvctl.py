# -*- coding: utf-8 -*-
# Copyright: kvstop developers
# GNU General Public License v3.0+ (see https://www.gnu.org/licenses/gpl-3.0.txt)
"""kvctl --json for the modules: only its exit status and its JSON object are read."""

from __future__ import absolute_import, division, print_function

__metaclass__ = type

import json

# kvctl's exit statuses, one meaning each: done; nothing answers at the socket (the daemon is
# not running); anything else failed (refused, permission, usage, still running after --wait).
DONE = 0
NOT_REACHABLE = 1

# The options that every module passes on to kvctl.
COMMON_ARGS = dict(
    socket=dict(type='path'),
    timeout=dict(type='int'),
)


def run(module, *args):
    """kvctl --json ARGS with the module's socket and time-out.

    Returns (rc, result, error, cmd): the exit status (None when kvctl was not found), the
    result object when kvctl succeeded, its error object when it did not (exactly one of the
    two is None), and the command line.
    """
    path = module.get_bin_path('kvctl', opt_dirs=['/usr/sbin', '/sbin'])
    cmd = [path or 'kvctl', '--json']
    if module.params['socket'] is not None:
        cmd += ['--socket', module.params['socket']]
    if module.params['timeout'] is not None:
        cmd += ['--timeout', str(module.params['timeout'])]
    cmd += list(args)
    if path is None:
        return None, None, failed(module, 'kvctl not found in PATH, /usr/sbin or /sbin'), cmd
    rc, out, err = module.run_command(cmd)
    try:
        obj = json.loads(out)
    except ValueError:
        obj = None
    if isinstance(obj, dict) and rc == DONE and 'error' not in obj:
        return rc, obj, None, cmd
    if isinstance(obj, dict) and rc != DONE and isinstance(obj.get('error'), dict):
        return rc, None, obj['error'], cmd
    # Not kvctl's contract: no object to pass on, only what it said.
    return rc, None, failed(module, 'unexpected output from kvctl (exit status %d): %s'
                            % (rc, err.strip() or 'nothing on standard error')), cmd


def failed(module, message):
    """An error object of kvctl's shape for a failure that kvctl could not describe."""
    return dict(kind='failed', message=message, socket=module.params['socket'])


def not_running(rc, error):
    """kvctl's way of saying that no daemon runs: exit status 1, kind "not reachable"."""
    return rc == NOT_REACHABLE and error is not None and error.get('kind') == 'not reachable'
