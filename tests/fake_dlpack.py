"""Arrays that claim to live on another DLPack device (CUDA, pinned host,
managed memory) while pointing at ordinary host memory.

nanobind accepts them like real device arrays, so every length, placement and
same-device check, and the refusal without a usable CUDA runtime, can be
tested on a machine without a GPU. Their memory must never be used as device
memory: any test that could reach a kernel with one is a bug in the test.
"""
import ctypes

import numpy as np

CPU, CUDA, CUDA_HOST, CUDA_MANAGED = 1, 2, 3, 13


class DLDevice(ctypes.Structure):
    _fields_ = [("device_type", ctypes.c_int32), ("device_id", ctypes.c_int32)]


class DLDataType(ctypes.Structure):
    _fields_ = [("code", ctypes.c_uint8), ("bits", ctypes.c_uint8), ("lanes", ctypes.c_uint16)]


class DLTensor(ctypes.Structure):
    _fields_ = [("data", ctypes.c_void_p), ("device", DLDevice), ("ndim", ctypes.c_int32),
                ("dtype", DLDataType), ("shape", ctypes.POINTER(ctypes.c_int64)),
                ("strides", ctypes.POINTER(ctypes.c_int64)), ("byte_offset", ctypes.c_uint64)]


class DLManagedTensor(ctypes.Structure):
    pass


_Deleter = ctypes.CFUNCTYPE(None, ctypes.POINTER(DLManagedTensor))
DLManagedTensor._fields_ = [("dl_tensor", DLTensor), ("manager_ctx", ctypes.c_void_p),
                            ("deleter", _Deleter)]

# Everything a handed-out tensor points at stays here until its deleter runs.
_alive = {}


@_Deleter
def _delete(managed):
    _alive.pop(ctypes.addressof(managed.contents), None)


def _python_api(name, restype, *argtypes):
    function = getattr(ctypes.pythonapi, name)
    function.restype, function.argtypes = restype, list(argtypes)
    return function


_CapsuleDestructor = ctypes.CFUNCTYPE(None, ctypes.c_void_p)
_capsule_new = _python_api("PyCapsule_New", ctypes.py_object, ctypes.c_void_p, ctypes.c_char_p,
                           _CapsuleDestructor)
_capsule_valid = _python_api("PyCapsule_IsValid", ctypes.c_int, ctypes.c_void_p, ctypes.c_char_p)
_capsule_pointer = _python_api("PyCapsule_GetPointer", ctypes.c_void_p, ctypes.c_void_p,
                               ctypes.c_char_p)


@_CapsuleDestructor
def _capsule_gone(capsule):
    # Nobody consumed the tensor: release it here, as a producer must.
    if _capsule_valid(capsule, b"dltensor"):
        _alive.pop(_capsule_pointer(capsule, b"dltensor"), None)


class FakeDeviceArray:
    """A 1-D float64 (or int64) array reported as living on `device_type`."""

    def __init__(self, values, device_type=CUDA, device_id=0):
        self.host = np.ascontiguousarray(values)
        self.device_type, self.device_id = device_type, device_id

    def __dlpack_device__(self):
        return (self.device_type, self.device_id)

    def __dlpack__(self, stream=None):
        managed = DLManagedTensor()
        shape = (ctypes.c_int64 * 1)(self.host.shape[0])
        code = 2 if self.host.dtype.kind == "f" else 0  # float or signed int
        device = DLDevice(self.device_type, self.device_id)
        dtype = DLDataType(code, self.host.dtype.itemsize * 8, 1)
        managed.dl_tensor = DLTensor(self.host.ctypes.data, device, 1, dtype, shape, None, 0)
        managed.deleter = _delete
        address = ctypes.addressof(managed)
        _alive[address] = (managed, shape, self.host)
        return _capsule_new(address, b"dltensor", _capsule_gone)


def cuda(n_or_values, device_id=0):
    values = np.zeros(n_or_values) if np.isscalar(n_or_values) else n_or_values
    return FakeDeviceArray(np.asarray(values, dtype=np.float64), CUDA, device_id)


def live_tensors():
    """Number of tensors handed out and not yet released (leak checks)."""
    return len(_alive)
