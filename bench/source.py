# SPDX-License-Identifier: Apache-2.0
"""What lies on the source host and is made anew before each run, which may remove it."""

import hashlib
import os
import shutil

from harness.accounts import MOVER
from harness.agents import AGENT_STATUS, AgentCatalogue, ContentFile, content_list
from harness.places import make_dir, write
from harness.product import Product
from hosts import BASE, give_to_login

AGENT = "Bench"
AGENT_DIR = BASE / "source" / "agent"
CONTENT_DIR = AGENT_DIR / "content"
_STORE = BASE / "store"
_BLOCK = os.urandom(1 << 22)

# Prints what lies beside it; a run of an agent that does real work would not be about the program.
_ENTRY_POINT = f"""\
case $1 in
    --get-content-list) cat {AGENT_DIR}/.list ;;
    --get-status) printf '%s' '{AGENT_STATUS.decode().strip()}' ;;
esac
"""


def install_product():
    """The destination host's product with one agent, the tree of which is 200 files in 20 directories."""
    product = Product().install()
    catalogue = AgentCatalogue(product)
    catalogue.install_shared()
    files = {f"part{number % 20:02}/script{number:03}.pl": _BLOCK[:1024 + 8192 * number // 199] for number in range(199)}
    catalogue.install(AGENT, {**files, "run.sh": _ENTRY_POINT}, EntryPoint="run.sh", Interpreter="sh")
    return catalogue.path(AGENT)


class Content:
    """Files of one size, and the agent that lists them, with MD5 sums or without.

    Those that are `sparse` are holes: for files of which memory does not hold two."""

    def __init__(self, count, size, sparse=False):
        self.count, self.size = count, size
        self.names = [f"content/{number:06}" for number in range(count)]
        self._store = make_dir(_STORE / f"{count}-{size}")
        for name in self.names:
            _fill(self._store / os.path.basename(name), size, sparse)
        give_to_login(self._store)
        self._md5 = None

    def offer(self, sums=False):
        """Puts the agent and all files in place; returns the size of the content list."""
        shutil.rmtree(AGENT_DIR, ignore_errors=True)
        make_dir(CONTENT_DIR)
        write(AGENT_DIR / "run.sh", _ENTRY_POINT)
        md5 = self.md5() if sums else None
        text = content_list([ContentFile(name, self.size, md5) for name in self.names])
        write(AGENT_DIR / ".list", text)
        for name in self.names:
            os.link(self._store / os.path.basename(name), AGENT_DIR / name)
        for path in (AGENT_DIR, CONTENT_DIR):
            os.chown(path, MOVER.uid, MOVER.gid)
        return len(text)

    def md5(self):
        """The sum of each of the files, which are all alike."""
        if self._md5 is None:
            with open(self._store / "000000", "rb") as file:
                self._md5 = _md5(file)
        return self._md5

    def check_arrived(self, directory):
        """Fails unless every byte of the content is below `directory`."""
        sizes = [os.lstat(os.path.join(path, name)).st_size for path, _, names in os.walk(directory) for name in names]
        arrived = [size for size in sizes if size == self.size]
        assert len(arrived) == self.count, f"{len(arrived)} files of {self.size} bytes instead of {self.count}"

    def check_removed(self):
        """Fails unless the agent directory has nothing of the content any more."""
        left = os.listdir(CONTENT_DIR)
        assert not left, f"{len(left)} files were not removed"

    def remove(self):
        """Frees the room that the content takes."""
        shutil.rmtree(self._store)
        shutil.rmtree(AGENT_DIR, ignore_errors=True)


def _fill(path, size, sparse):
    with open(path, "wb") as file:
        if sparse:
            file.truncate(size)
            return
        for begin in range(0, size, len(_BLOCK)):
            file.write(_BLOCK[:min(len(_BLOCK), size - begin)])


def _md5(file):
    digest = hashlib.md5()
    while block := file.read(1 << 20):
        digest.update(block)
    return digest.hexdigest()
