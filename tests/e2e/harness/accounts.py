# SPDX-License-Identifier: Apache-2.0
"""The sandbox's accounts, read from the file that the sandbox itself is made from."""

import pathlib
import pwd
from dataclasses import dataclass

_FILE = pathlib.Path(__file__).resolve().parents[2] / "sandbox" / "accounts"


@dataclass(frozen=True)
class Account:
    """One login of the sandbox; `sudo` is none, own, root or free."""

    login: str
    uid: int
    gid: int
    password: str
    sudo: str

    @property
    def home(self):
        return pathlib.Path(pwd.getpwnam(self.login).pw_dir)

    @property
    def sudo_password(self):
        """What sudo asks this login for."""
        return ACCOUNTS["root"].password if self.sudo == "root" else self.password


def _read():
    accounts = {}
    for line in _FILE.read_text(encoding="utf-8").splitlines():
        if line and not line.startswith("#"):
            login, uid, gid, password, sudo = line.split(":")
            accounts[login] = Account(login, int(uid), int(gid), password, sudo)
    return accounts


ACCOUNTS = _read()
OVNADM = ACCOUNTS["ovnadm"]
MOVER = ACCOUNTS["mover"]
OWNER = ACCOUNTS["owner"]
NOPASS = ACCOUNTS["nopass"]
PLAIN = ACCOUNTS["plain"]
SPACEY = ACCOUNTS["spacey"]


def why_not_in_sandbox():
    """The reason why these tests must not run here, or None when this is the sandbox."""
    for account in ACCOUNTS.values():
        try:
            entry = pwd.getpwnam(account.login)
        except KeyError:
            return f'there is no account "{account.login}"'
        if entry.pw_uid != account.uid:
            return f'account "{account.login}" has the wrong uid {entry.pw_uid}'
    with open("/proc/self/net/dev", encoding="ascii") as table:
        links = sorted(line.split(":")[0].strip() for line in table.readlines()[2:])
    if links != ["lo"]:
        return f"there are network links besides lo: {', '.join(links)}"
    return None
