"""Checks of what callers pass, before the library sees it."""

import math
import operator
from collections.abc import Sequence
from typing import Any, SupportsIndex, Union

import numpy as np
import numpy.typing as npt

MAX_INT32 = 2**31 - 1

Float32Array = npt.NDArray[np.float32]
Samples = Union[npt.NDArray[np.floating[Any]], Sequence[float]]
"""Audio: real floats of any width."""
IqSamples = Union[npt.NDArray[np.complexfloating[Any, Any]], Sequence[complex]]
"""I + jQ: complex numbers of any width."""
Rate = Union[float, SupportsIndex]  # in any case a whole number


def _array(values: object, name: str, wanted: str) -> npt.NDArray[Any]:
    array = np.asarray(values)
    if array.dtype.kind in "iu":
        raise TypeError(
            f"{name} are {array.dtype}; {wanted} is needed. Scale them to full scale 1: for int16 "
            f"{name}.astype(numpy.float32) / 32768"
        )
    if array.dtype.kind not in "fc":
        raise TypeError(f"{name} are {array.dtype}; {wanted} is needed")
    return array


def _check_length(array: npt.NDArray[Any], name: str) -> None:
    if array.size == 0:
        raise ValueError(f"{name} are empty")
    if array.size > MAX_INT32:
        raise ValueError(f"{name} are {array.size}; at most 2^31 - 1 are possible in a block")


def _check_finite(array: npt.NDArray[Any], name: str) -> None:
    finite = np.isfinite(array)
    if not finite.all():
        raise ValueError(f"{name} hold {array[~finite][0]} at index {int(np.argmin(finite))}; all must be finite")


def _check_one_dimension(array: npt.NDArray[Any], name: str) -> None:
    if array.ndim != 1:
        raise ValueError(
            f"{name} have shape {array.shape}; one dimension is needed. Take one channel, {name}[:, 0], or the mean "
            f"of all, {name}.mean(axis=1)"
        )


def to_float32(array: npt.NDArray[Any]) -> Float32Array:
    """Contiguous 32-bit floats in the machine's byte order; too large a value becomes infinite, silently."""
    with np.errstate(over="ignore"):
        return np.ascontiguousarray(array, dtype=np.float32)


def real_samples(values: object, name: str = "samples") -> Float32Array:
    """One-dimensional real samples as the library takes them; copied when they are of another type or scattered."""
    array = _array(values, name, "an array of real floats")
    if array.dtype.kind == "c":
        raise TypeError(f"{name} are {array.dtype}; an array of real floats is needed. For I/Q there is decode_iq()")
    _check_one_dimension(array, name)
    _check_length(array, name)
    samples = to_float32(array)
    _check_finite(samples, name)
    return samples


def iq_samples(values: object, name: str = "iq") -> npt.NDArray[Any]:
    """One-dimensional complex samples."""
    array = _array(values, name, "a complex array, I + 1j*Q,")
    if array.dtype.kind != "c":
        raise TypeError(
            f"{name} are {array.dtype}; a complex array is needed. From two columns: {name}[:, 0] + 1j * {name}[:, 1]"
        )
    if array.ndim != 1:
        raise ValueError(f"{name} have shape {array.shape}; one dimension is needed")
    _check_length(array, name)
    _check_finite(array, name)
    return array


def channel_samples(values: object, name: str = "samples") -> tuple[Float32Array, int, int]:
    """Samples of shape (frames,) or (frames, channels), 1 to 16 channels; with both numbers."""
    array = _array(values, name, "an array of real floats")
    if array.dtype.kind == "c":
        raise TypeError(f"{name} are {array.dtype}; an array of real floats is needed")
    if array.ndim not in (1, 2) or (array.ndim == 2 and not 1 <= array.shape[1] <= 16):
        raise ValueError(
            f"{name} have shape {array.shape}; (frames,) or (frames, channels) is needed, with 1 to 16 channels"
        )
    frames, channels = array.shape[0], 1 if array.ndim == 1 else array.shape[1]
    if frames > MAX_INT32:
        raise ValueError(f"{name} are {frames} frames; at most 2^31 - 1 are possible")
    samples = to_float32(array)
    finite = np.isfinite(samples)
    if not finite.all():
        raise ValueError(f"{name} hold {samples[~finite][0]}; all must be finite")
    return samples, frames, channels


def whole_number(value: object, name: str, low: int, high: int = MAX_INT32) -> int:
    """A whole number in a range; a float will do when it is one."""
    try:
        if isinstance(value, bool):
            raise TypeError
        if isinstance(value, (float, np.floating)):
            if not float(value).is_integer():
                raise ValueError(f"{name} is {value}; a whole number is needed")
            number = int(value)
        else:
            number = operator.index(value)  # type: ignore[arg-type]
    except TypeError:
        raise TypeError(f"{name} is {value!r}; a whole number is needed") from None
    if not low <= number <= high:
        raise ValueError(f"{name} is {number}; it must be {low} to {high}")
    return number


def sample_rate(value: object) -> int:
    """A sample rate in Hz."""
    return whole_number(value, "rate", 1)


def real_number(value: object, name: str, low: float = -math.inf) -> float:
    """A finite number, not below `low`."""
    if isinstance(value, (bool, str, bytes)):
        raise TypeError(f"{name} is {value!r}; a number is needed")
    try:
        number = float(value)  # type: ignore[arg-type]
    except TypeError:
        raise TypeError(f"{name} is {value!r}; a number is needed") from None
    if not math.isfinite(number) or number < low:
        raise ValueError(f"{name} is {number}; " + ("it must be finite" if low == -math.inf else f"at least {low:g}"))
    return number


def text(value: object, name: str, longest: int = MAX_INT32) -> bytes:
    """A text as the library takes it."""
    if not isinstance(value, str):
        raise TypeError(f"{name} is {value!r}; a str is needed")
    encoded = value.encode("utf-8", "surrogateescape")
    if b"\0" in encoded:
        raise ValueError(f"{name} holds a NUL character")
    if len(encoded) > longest:
        raise ValueError(f"{name} {value!r} is longer than {longest} characters")
    return encoded
