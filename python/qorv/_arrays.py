# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
"""Conversions between numpy arrays and the packed C arrays of the exports."""

import ctypes
from typing import Any, Protocol, Union

import numpy as np
from numpy.typing import ArrayLike


class HasPoints(Protocol):
    """Anything with a `points` attribute numpy can read as (n, 3), such as an Open3D PointCloud."""

    points: Any


# What the engine's functions take as a cloud: an (n, 3) or (h, w, 3) array-like, or a HasPoints.
CloudLike = Union[ArrayLike, HasPoints]

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


def cloud_points(value, name):
    """Points as the engine takes them: any (n, 3) or (h, w, 3) array of numbers, or an object with
    a `points` attribute (an Open3D PointCloud). float64 stays float64 (survey-scale coordinates keep
    their precision); every other type becomes float32."""
    if hasattr(value, "points") and not isinstance(value, np.ndarray):
        value, name = value.points, f"{name}.points"
    if value is None:
        raise TypeError(f"{name} must be an (n, 3) array of points, not None")
    try:
        array = np.asarray(value)
    except Exception as error:  # noqa: BLE001 - any conversion failure is the caller's type
        raise TypeError(f"{name} must be an (n, 3) array of points or an object with a points "
                        f"attribute (an Open3D PointCloud), got {type(value).__name__}") from error
    if array.dtype.kind not in "fiu":
        raise TypeError(f"{name} must hold numbers, got an array of {array.dtype} from "
                        f"{type(value).__name__}")
    dtype = np.float64 if array.dtype == np.float64 else np.float32
    array = np.ascontiguousarray(array, dtype=dtype)
    if array.ndim not in (2, 3) or array.shape[-1] != 3:
        raise ValueError(f"{name} must be an (n, 3) or (h, w, 3) array, got shape {array.shape}")
    return array


def colour_bytes(value, count, name="colours"):
    """Colours as bytes 0-255: uint8 as they are, other integers within 0-255, floats within 0-1
    (Open3D's layout) scaled by 255; anything else is an error."""
    array = np.asarray(value)
    if hasattr(value, "colors") and not isinstance(value, np.ndarray):
        array = np.asarray(value.colors)
    if array.size != 3 * count:
        raise ValueError(f"{name} must hold 3 values a point ({3 * count}), got {array.size}")
    if array.dtype == np.uint8:
        return np.ascontiguousarray(array)
    if array.dtype.kind in "iu":
        if array.size and (array.min() < 0 or array.max() > 255):
            raise ValueError(f"integer {name} must lie within 0-255, got {array.min()}-{array.max()}")
        return np.ascontiguousarray(array, dtype=np.uint8)
    if array.dtype.kind == "f":
        if array.size and not (np.isfinite(array).all() and array.min() >= 0.0 and array.max() <= 1.0):
            raise ValueError(f"float {name} must lie within 0-1 (Open3D's layout); give uint8 for 0-255")
        return np.ascontiguousarray(np.rint(array * 255.0), dtype=np.uint8)
    raise TypeError(f"{name} must be uint8 0-255 or float 0-1, got {array.dtype}")
