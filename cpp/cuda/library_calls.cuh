// The cuBLAS and cuSOLVER side of the device frame: status checks in the two
// wordings the modules use, process-wide handles created once, and the
// strided batched product of row-major square matrices.
#pragma once

#include <cublas_v2.h>
#include <cusolverDn.h>

#include <mutex>
#include <stdexcept>
#include <string>

#include "cuda/frame.cuh"

namespace dravik::cuda {

// How a module words a failed library call: the second-order module adds the
// numeric status (" failed with cuBLAS status 7"), the PSD module does not
// (" failed").
enum class StatusWording { WithStatus, Plain };

inline void check_library(bool ok, int status, const char* name, StatusWording wording) {
    if (ok) return;
    if (wording == StatusWording::WithStatus) {
        throw std::runtime_error(std::string(name) + " failed with cuBLAS status " +
                                 std::to_string(status));
    }
    throw std::runtime_error(std::string(name) + " failed");
}

inline void check_cublas(cublasStatus_t status, const char* name, StatusWording wording) {
    check_library(status == CUBLAS_STATUS_SUCCESS, static_cast<int>(status), name, wording);
}

inline void check_cusolver(cusolverStatus_t status, const char* name) {
    check_library(status == CUSOLVER_STATUS_SUCCESS, static_cast<int>(status), name,
                  StatusWording::Plain);
}

// A module's process-wide cuBLAS handle: created on first use, exactly once
// even when two threads get there together (a failed creation is retried by
// the next call), in host pointer mode, bound to the device current at that
// moment, and never destroyed. Callers rebind its stream before each use.
class CublasHandle {
public:
    explicit CublasHandle(StatusWording wording) : wording_(wording) {}

    cublasHandle_t get() {
        std::call_once(created_, [this] {
            cublasHandle_t h = nullptr;
            check_cublas(cublasCreate(&h), "cublasCreate", wording_);
            const cublasStatus_t mode = cublasSetPointerMode(h, CUBLAS_POINTER_MODE_HOST);
            if (mode != CUBLAS_STATUS_SUCCESS) cublasDestroy(h);
            check_cublas(mode, "cublasSetPointerMode", wording_);
            handle_ = h;
        });
        return handle_;
    }
    StatusWording wording() const { return wording_; }

private:
    StatusWording wording_;
    std::once_flag created_;
    cublasHandle_t handle_ = nullptr;
};

// The same for a dense cuSOLVER handle (failures worded plainly).
class CusolverHandle {
public:
    cusolverDnHandle_t get() {
        std::call_once(created_, [this] {
            cusolverDnHandle_t h = nullptr;
            check_cusolver(cusolverDnCreate(&h), "cusolverDnCreate");
            handle_ = h;
        });
        return handle_;
    }

private:
    std::once_flag created_;
    cusolverDnHandle_t handle_ = nullptr;
};

// c_b := x_b y_b for every b < batch, all row-major n x n blocks stored
// one after another, on `stream`. cuBLAS reads column-major, where a
// row-major block is its transpose, so passing y as its A operand and x as
// its B operand yields (x y)^T column-major, which is x y row-major. The
// sizes and the batch count are 32-bit for cuBLAS; callers keep them there.
inline void batched_gemm(CublasHandle& library, const double* x, const double* y, double* c,
                         size_t n, size_t batch, cudaStream_t stream) {
    cublasHandle_t handle = library.get();
    check_cublas(cublasSetStream(handle, stream), "cublasSetStream", library.wording());
    const double alpha = 1.0;
    const double beta = 0.0;
    const int order = static_cast<int>(n);
    const long long stride = static_cast<long long>(n * n);
    check_cublas(cublasDgemmStridedBatched(handle, CUBLAS_OP_N, CUBLAS_OP_N, order, order, order,
                                           &alpha, y, order, stride, x, order, stride, &beta, c,
                                           order, stride, static_cast<int>(batch)),
                 "cublasDgemmStridedBatched", library.wording());
}

}  // namespace dravik::cuda
