// SPDX-License-Identifier: Apache-2.0
#include "tallowick/usage.h"

#include <iostream>

namespace korva {

void usage() {
    // Fixed to the byte: the blanks at the ends of two lines are meant.
    std::cout << R"(Usage: [OVN_PASSWORD=<password> | OVN_SUDO_PASSWORD = <sudo_password>] tallowick )"
                 "\n"
                 R"(          --host=<hostname or IP address> (obsolete alias is --ip)
          [--port=<port>] (defaults to 22)
          --login=<username>
          [--sudo-password]
          --agent-dir=<dir> (relative path on the remote side)
          ( --send-scout
          | --deploy-agent --session-path <dir> --agent-name <agent>
          | --get-dumping-status --session-path <dir>
          | ( --dump-selected [--selected-objects-file=<file-path>]
                [--resellers=-|<reseller1>[,<reseller2>...]] [--clients=-|<client1>[,<client2>...]] [--domains=-|<domain1>[,<domain2>...]]
             | --dump-all ) )"
                 "\n"
                 R"(                [--server] [--admin-info] [--no-license]
                 --session-path <dir> --agent-name <agent>
                [--no-content] [--no-compress]
                [--only-mail]
                [--only-hosting]
          | --get-content --session-path <dir> --agent-name <agent>
                [--no-check-space] [--no-encryption (not implemented)] [--dumps-dir=<dir-on-destination-host>]
          | --remove-agent --session-path <dir> --agent-name <agent>
          | --remove-dumping-status --session-path <dir>
          | --help | -h)
)" << std::flush;
}

}  // namespace korva
