# SPDX-License-Identifier: Apache-2.0
"""What the end-to-end tests stand on: servers, a relay, a runner and readers of what a run leaves behind."""
