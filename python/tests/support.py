"""Helpers the package's tests share."""

from typing import Any, Callable

import tamrik


def outcomes(call: Callable[[], Any], times: int) -> list:
    """What each of so many calls gave: "ok", or the TamrikError it raised."""
    got: list = []
    for _ in range(times):
        try:
            call()
            got.append("ok")
        except tamrik.TamrikError as failure:
            got.append(failure)
    return got
