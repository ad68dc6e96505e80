"""Figures of a data directory for systems that watch many of them, in the text format of Prometheus.

`MetricsFile` writes them from within a host; the command `brackenfen-sync metrics` from outside. Needs the package
prometheus-client: the extra `metrics`.
"""

from brackenfen.sync_metrics.writer import MetricsFile

__all__ = ["MetricsFile"]
