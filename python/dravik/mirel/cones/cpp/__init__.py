"""Compiled cone primitives; the extension module _cpp_cuda is built into this folder."""
