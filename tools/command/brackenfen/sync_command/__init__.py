"""The command `brackenfen-sync`: what an operator does with a data directory without writing Python.

It says and does nothing of its own: everything comes from the module `brackenfen.sync`, in the same interpreter as the
host's modules, so that these are in force for it too.
"""
