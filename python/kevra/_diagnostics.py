"""What the runtime knows about itself, read without probing or binding anything."""

import ctypes
import json
import os

from . import _rocm


def read() -> dict:
    """The runtime's present state.

    ``library`` and ``hiprtc`` are the paths of what is bound, or None; ``search`` lists the candidates of the last
    search in order, each with its outcome; ``cache`` is the folder of the code objects; ``available`` is the
    remembered answer of ``available()``: 1 or 0, or -1 while nobody has asked; ``pools`` counts the blocks and
    bytes of the device pool and the pinned pool.
    """
    function = ctypes.PyDLL(_rocm.__file__).kevra_diagnostics
    function.restype = ctypes.c_char_p
    function.argtypes = []
    return json.loads(os.fsdecode(function()))  # paths need not be valid UTF-8
