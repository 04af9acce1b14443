"""python3 -m tessmorph: the command-line tool."""

import sys

from .cli import main

sys.exit(main())
