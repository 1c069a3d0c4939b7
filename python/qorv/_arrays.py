# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Conversions between numpy arrays and the packed C arrays of the exports."""

import ctypes

import numpy as np

INT32_MAX = 2**31 - 1


def address(array):
    """The address of a numpy array's data, or None (a null pointer) for None."""
    return None if array is None else array.ctypes.data


def rows(value, width, dtype, name):
    """`value` as a C-contiguous (n, width) array of dtype; accepts any array-like.

    A flat array whose length is a multiple of width is read as packed rows. Empty input is
    returned as a (0, width) array so that the library, not the wrapper, rejects it.
    """
    if value is None:
        raise TypeError(f"{name} must be an array, not None")
    array = np.ascontiguousarray(value, dtype=dtype)
    if array.ndim == 1 and array.size % width == 0:
        array = array.reshape(-1, width)
    if array.ndim != 2 or array.shape[1] != width:
        raise ValueError(f"{name} must have shape (n, {width}), got {np.shape(value)}")
    if array.shape[0] > INT32_MAX:
        raise ValueError(f"{name} has more than {INT32_MAX} rows")
    return array


def points(value, name="points"):
    """Packed float32 triples (n, 3)."""
    return rows(value, 3, np.float32, name)


def optional_points(value, count, name):
    """Packed float32 triples with exactly `count` rows, or None."""
    if value is None:
        return None
    array = points(value, name)
    if array.shape[0] != count:
        raise ValueError(f"{name} has {array.shape[0]} rows, expected {count}")
    return array


def descriptors(value, name="descriptors"):
    """Packed 33-float descriptors (n, 33)."""
    return rows(value, 33, np.float32, name)


def matrix(value, name, shapes):
    """`value` as a float64 array of one of the accepted shapes (tuples)."""
    array = np.asarray(value, dtype=np.float64)
    if array.shape not in shapes:
        accepted = " or ".join(str(s) for s in shapes)
        raise ValueError(f"{name} must have shape {accepted}, got {array.shape}")
    return array


def rigid_3x4(value, name="transform"):
    """A rigid motion given as a 3 x 4 [R | t] or 4 x 4 homogeneous matrix, as contiguous 3 x 4."""
    array = matrix(value, name, [(3, 4), (4, 4)])
    return np.ascontiguousarray(array[:3, :4])


def copy_out(pointer, count, width, dtype):
    """A fresh (count, width) array copied from library memory at `pointer` (an int or None);
    width None gives a flat (count,) array.

    memmove rather than np.ctypeslib.as_array: the latter makes a new ctypes array type for
    every distinct length, which ctypes caches for the life of the process.
    """
    shape = (int(count),) if width is None else (int(count), width)
    result = np.empty(shape, dtype=dtype)
    if count > 0:
        if not pointer:
            raise RuntimeError("the library passed a null array with a non-zero count")
        ctypes.memmove(result.ctypes.data, pointer, result.nbytes)
    return result


def int_arg(value, name, minimum=None):
    """An integer argument that must fit in int32."""
    integer = int(value)
    if integer != value:
        raise TypeError(f"{name} must be an integer, got {value!r}")
    if not -2**31 <= integer <= INT32_MAX:
        raise ValueError(f"{name} does not fit in 32 bits: {integer}")
    if minimum is not None and integer < minimum:
        raise ValueError(f"{name} must be at least {minimum}, got {integer}")
    return integer
