# SPDX-License-Identifier: Apache-2.0
"""The product's own files on the destination host: its configuration, its log set-up, the scout."""

import pathlib

from harness.places import SOURCE_ROOT, make_dir, remove_tree, write

DEFAULT_ROOT = pathlib.Path("/usr/local/ovn")
OVN_CONF = pathlib.Path("/etc/ovn/ovn.conf")

# Small enough for a byte-by-byte comparison and without a word about where it runs.
SMALL_REPORT = b'<?xml version="1.0"?>\n<scout><system name="small"/></scout>\n'
SMALL_SCOUT = f"use strict;\nuse warnings;\nprint q({SMALL_REPORT.decode()});\nexit 0;\n"


class Product:
    """One product root, laid out as an installation would be."""

    def __init__(self, root=DEFAULT_ROOT):
        self.root = pathlib.Path(root)
        self.dvx = self.root / "DVX"
        self.scout_file = self.dvx / "scout.pl"
        self.log_properties = self.dvx / "log4cpp.properties"

    def install(self):
        """Lays everything out anew, with the default log set-up and the small scout."""
        remove_tree(self.dvx)
        make_dir(self.root)
        make_dir(self.dvx)
        make_dir(self.dvx / "tmp")
        write(self.log_properties, (SOURCE_ROOT / "conf" / "log4cpp.properties").read_bytes())
        self.set_scout(SMALL_SCOUT)
        return self

    def set_scout(self, text):
        """Makes `text` the scout that is sent to the source host."""
        write(self.scout_file, text)


def configure(text):
    """Writes the host's product configuration file; None removes it."""
    if text is None:
        OVN_CONF.unlink(missing_ok=True)
        return
    make_dir(OVN_CONF.parent)
    write(OVN_CONF, text)
