# SPDX-License-Identifier: GPL-2.0
"""A table of the report."""


def table(head, rows):
    """Lines of Markdown."""
    yield ""
    yield "| " + " | ".join(head) + " |"
    yield "|" + "---|" + "---:|" * (len(head) - 1)
    for row in rows:
        yield "| " + " | ".join(row) + " |"
