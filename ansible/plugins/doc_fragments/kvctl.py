# -*- coding: utf-8 -*-
# Copyright: kvstop developers
# GNU General Public License v3.0+ (see https://www.gnu.org/licenses/gpl-3.0.txt)

from __future__ import absolute_import, division, print_function

__metaclass__ = type


class ModuleDocFragment(object):
    # The options of plugins/module_utils/kvctl.py's COMMON_ARGS, and what every module needs.
    DOCUMENTATION = r'''
options:
  socket:
    description:
      - The daemon's control socket. By default the one that C(/etc/zantorkv/zantorkv.conf)
        names, or C(/var/zantorkv/audit).
    type: path
  timeout:
    description:
      - Seconds allowed for connecting and for each exchange with the daemon (0 for no limit).
        By default C(lrpc2.timeout) from C(/etc/zantorkv/zantorkv.conf), or 30.
    type: int
requirements:
  - C(kvctl) on the managed host (in C(PATH), C(/usr/sbin) or C(/sbin)).
attributes:
  check_mode:
    description: Asks only for the daemon's status and acts on nothing.
    support: full
'''
