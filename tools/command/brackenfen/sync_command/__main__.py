"""`python -m brackenfen.sync_command` is `brackenfen-sync`."""

import sys

from brackenfen.sync_command.main import main

sys.exit(main())
