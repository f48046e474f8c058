"""The committed figures, limits.toml."""

import os
import tomllib


def limits_of(architecture):
    """The figures that the library of that architecture has to keep."""
    with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "limits.toml"), "rb") as limits:
        return tomllib.load(limits)[architecture]
