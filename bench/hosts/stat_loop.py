"""Looks at every file with os.stat. LIST holds what sha256sum prints.

    stat_loop.py LIST DIRECTORY
"""

import os
import sys

with open(sys.argv[1]) as lines:
    for line in lines:
        os.stat(f"{sys.argv[2]}/{line[66:-1]}")
