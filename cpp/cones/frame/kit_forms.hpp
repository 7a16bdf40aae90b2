// The solver kit's methods, written once for every cone (KitForms<Cone>):
// the views of each call in parameter order (length before device and
// alignment, per argument), the same-device checks, then either the cone's
// device entry point or the host loop over items, which runs the cone's
// per-item kit math (math/<cone>_kit.hpp) and turns a refused item into
// its message. A cone provides:
//   kit()          the kit math of one item;
//   kEntrywise     true when its kit works unit by unit, a unit being
//                  kUnitRows entries (the nonnegative cone's entries, the
//                  exponential cone's 3-blocks): the host then runs the
//                  entrywise operations over runs of kEntryRun units of the
//                  whole batch, with kit_of(units) the kit of such a run
//                  (the Hessian forms see whole items either way);
//   kit_size()     the size its device entry points take (rows, the PSD
//                  order or the exponential blocks);
//   kit_label()    the cone's name in messages ("SOC", "PSD", ...);
//   kit_device()   its device entry points.
// Items are independent: the host splits them over the OpenMP team when
// the call's work exceeds the usual threshold, and the results do not
// depend on the team. A refusal names the first refused item; items other
// than the refused ones may have been written by then.
#pragma once

#include <omp.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "cones/frame/dispatch.hpp"
#include "cones/frame/parallel.hpp"
#include "cones/frame/sparse_fill.hpp"
#include "core/errors.hpp"
#include "core/views.hpp"
#include "math/kit.hpp"
#include "math/sparse_fill.hpp"

namespace dravik::mirel::cones::cpp {

// One cone's device entry points; `size` is the cone's kit_size().
struct KitDeviceFns {
    void (*identity)(double* out, size_t size, size_t batch, int device, cudaStream_t stream);
    double (*max_step)(const double* x, const double* dx, size_t size, size_t batch, int device,
                       cudaStream_t stream);
    void (*nt_scaling)(const double* s, const double* z, double* scaling, size_t size,
                       size_t batch, double mu, int device, cudaStream_t stream);
    void (*nt_scaled_point)(const double* scaling, double* lam, size_t size, size_t batch,
                            int device, cudaStream_t stream);
    void (*nt_apply)(const double* scaling, const double* x, double* out, size_t size,
                     size_t batch, bool inverse, int device, cudaStream_t stream);
    void (*nt_hessian)(const double* scaling, double* out, size_t size, size_t batch,
                       bool inverse, int device, cudaStream_t stream);
    void (*nt_hessian_csr)(const double* scaling, const int64_t* indptr, const int64_t* indices,
                           double* values, size_t nnz, size_t size, size_t row_offset,
                           size_t batch, bool inverse, double scale, int device,
                           cudaStream_t stream);
    void (*nt_hessian_coo)(const double* scaling, const int64_t* row_indices,
                           const int64_t* col_indices, double* values, size_t nnz, size_t size,
                           size_t row_offset, size_t batch, bool inverse, double scale,
                           int device, cudaStream_t stream);
    void (*jordan_product)(const double* x, const double* y, double* out, size_t size,
                           size_t batch, int device, cudaStream_t stream);
    void (*jordan_divide)(const double* lam, const double* v, double* out, size_t size,
                          size_t batch, int device, cudaStream_t stream);
};

// A device NT scaling entry point without the exponential cone's mu, as the
// table holds it (the symmetric cones' scaling has no mu).
template <void (*Fn)(const double*, const double*, double*, size_t, size_t, int, cudaStream_t)>
void nt_scaling_without_mu(const double* s, const double* z, double* scaling, size_t size,
                           size_t batch, double, int device, cudaStream_t stream) {
    Fn(s, z, scaling, size, batch, device, stream);
}

// The arguments of a kit fill as the binding hands them over.
struct KitFillArgs {
    ArrayRef scaling;
    ArrayRef first_index;   // indptr (CSR) or row_indices (COO)
    ArrayRef second_index;  // indices (CSR) or col_indices (COO)
    ArrayRef values;
    uint64_t row_offset;
    uint64_t batch;
    bool inverse;
    double scale;
    uint64_t stream;
};

// per_item * batch, or the overflow error naming the product.
inline uint64_t kit_length(uint64_t per_item, uint64_t batch, const char* product) {
    return checked_product(per_item, batch, "batch", product);
}

// What a loop over items found: the first refused item (`count` when none)
// with the code its body returned, and the least of the values the items
// reported (+inf when none; NaN once any item reported NaN).
struct ItemsOutcome {
    uint64_t first_refused;
    int code;
    double least;
};

// Runs body(k, scratch, &least) for items k < count, on one thread or on the
// team (contiguous blocks, one per thread) when count * work exceeds the
// parallel threshold. body returns 0 for an item that passed and a nonzero
// code for a refused one; its thread then stops, so the first refused item
// of all is the least of the threads' first ones. A call with no work per
// item (an empty cone) walks nothing. Scratch comes from one allocation
// made before any thread starts.
template <class Body>
ItemsOutcome run_kit_items(uint64_t count, uint64_t work, uint64_t scratch_length, Body&& body) {
    if (work == 0) return {count, 0, INFINITY};
    const bool heavy = count > kParallelThreshold / work;
    const int threads = count < 2 || !heavy ? 1 : omp_get_max_threads();
    std::vector<double> scratch(static_cast<size_t>(threads) * scratch_length);
    std::vector<ItemsOutcome> found(static_cast<size_t>(threads), {count, 0, INFINITY});
    auto block = [&](ItemRange range, int t) {
        double* own = scratch.data() + static_cast<size_t>(t) * scratch_length;
        ItemsOutcome& mine = found[t];
        for (uint64_t k = range.begin; k < range.end; ++k) {
            const int code = body(k, own, &mine.least);
            if (code != 0) {
                mine.first_refused = k;
                mine.code = code;
                return;
            }
        }
    };
    if (threads == 1) {
        block({0, count}, 0);
    } else {
#pragma omp parallel num_threads(threads)
        {
            const int t = omp_get_thread_num();
            block(block_of(count, static_cast<uint64_t>(omp_get_num_threads()),
                           static_cast<uint64_t>(t)),
                  t);
        }
    }
    ItemsOutcome result{count, 0, INFINITY};
    for (const ItemsOutcome& f : found) {
        if (f.first_refused < result.first_refused) {
            result.first_refused = f.first_refused;
            result.code = f.code;
        }
        result.least = least_of(result.least, f.least);
    }
    return result;
}

[[noreturn]] inline void kit_refuse(const char* label, const char* operation, const char* name,
                                    uint64_t item, const char* what) {
    fail(std::string(label) + " " + operation + ": " + name + " of item " + std::to_string(item) +
         " " + what);
}

// Where one part of a host call lies: its first entry and first scaling
// double, and the kit that works on it.
template <class Kit>
struct KitPart {
    Kit kit;
    uint64_t entry;
    uint64_t scaling;
};

// Entries per run of an entrywise cone's host loop.
constexpr uint64_t kEntryRun = 512;

template <class Cone>
class KitForms {
public:
    void identity_into(const ArrayRef& output, uint64_t batch, uint64_t stream) const {
        const VectorView out =
            checked_vector_view(output, kit_length(rows(), batch, "rows * batch"), "out");
        run_on(
            out,
            [&](int device) {
                device_fns().identity(out.data, size(), batch, device, as_stream(stream));
            },
            [&] {
                over_parts(batch, [&](const auto& part, double*, double*) {
                    part.kit.identity(out.data + part.entry);
                    return 0;
                });
            });
    }

    double max_step(const ArrayRef& x, const ArrayRef& dx, uint64_t batch, uint64_t stream) const {
        const uint64_t length = kit_length(rows(), batch, "rows * batch");
        const VectorView xv = checked_vector_view(x, length, "x");
        const VectorView dv = checked_vector_view(dx, length, "dx");
        require_same_input_device(xv, dv);
        return run_on(
            xv,
            [&](int device) {
                return device_fns().max_step(xv.data, dv.data, size(), batch, device,
                                             as_stream(stream));
            },
            [&] {
                const ItemsOutcome outcome =
                    over_parts(batch, [&](const auto& part, double* scratch, double* least) {
                        double alpha = INFINITY;
                        if (!part.kit.max_step(xv.data + part.entry, dv.data + part.entry,
                                               scratch, &alpha)) {
                            return 1;
                        }
                        *least = least_of(*least, alpha);
                        return 0;
                    });
                if (outcome.first_refused < batch) {
                    kit_refuse(label(), "max_step", "x", outcome.first_refused,
                               "is not in the cone");
                }
                return outcome.least;
            });
    }

    uint64_t scaling_length(uint64_t batch) const {
        return kit_length(self().kit().scaling_length(), batch, "scaling_length * batch");
    }

    void nt_scaling_into(const ArrayRef& s, const ArrayRef& z, const ArrayRef& scaling,
                         uint64_t batch, double mu, uint64_t stream) const {
        const uint64_t length = kit_length(rows(), batch, "rows * batch");
        const VectorView sv = checked_vector_view(s, length, "s");
        const VectorView zv = checked_vector_view(z, length, "z");
        const VectorView out = checked_vector_view(scaling, scaling_length(batch), "scaling");
        require_same_input_device(sv, zv);
        require_same_device(sv, out);
        run_on(
            out,
            [&](int device) {
                device_fns().nt_scaling(sv.data, zv.data, out.data, size(), batch, mu, device,
                                        as_stream(stream));
            },
            [&] {
                const ItemsOutcome outcome =
                    over_parts(batch, [&](const auto& part, double* scratch, double*) {
                        return static_cast<int>(
                            part.kit.nt_scaling(sv.data + part.entry, zv.data + part.entry, mu,
                                                scratch, out.data + part.scaling));
                    });
                if (outcome.first_refused == batch) return;
                const bool z_refused =
                    outcome.code == static_cast<int>(KitStatus::SecondNotInterior);
                kit_refuse(label(), "NT scaling", z_refused ? "z" : "s", outcome.first_refused,
                           "is not strictly interior");
            });
    }

    void nt_scaled_point_into(const ArrayRef& scaling, const ArrayRef& lam, uint64_t batch,
                              uint64_t stream) const {
        const VectorView sc = checked_vector_view(scaling, scaling_length(batch), "scaling");
        const VectorView out =
            checked_vector_view(lam, kit_length(rows(), batch, "rows * batch"), "lam");
        require_same_device(sc, out);
        run_on(
            out,
            [&](int device) {
                device_fns().nt_scaled_point(sc.data, out.data, size(), batch, device,
                                             as_stream(stream));
            },
            [&] {
                over_parts(batch, [&](const auto& part, double*, double*) {
                    part.kit.scaled_point(sc.data + part.scaling, out.data + part.entry);
                    return 0;
                });
            });
    }

    void nt_apply_into(const ArrayRef& scaling, const ArrayRef& x, const ArrayRef& output,
                       uint64_t batch, bool inverse, uint64_t stream) const {
        const uint64_t length = kit_length(rows(), batch, "rows * batch");
        const VectorView sc = checked_vector_view(scaling, scaling_length(batch), "scaling");
        const VectorView xv = checked_vector_view(x, length, "x");
        const VectorView out = checked_vector_view(output, length, "out");
        require_same_input_device(sc, xv);
        require_same_device(sc, out);
        run_on(
            out,
            [&](int device) {
                device_fns().nt_apply(sc.data, xv.data, out.data, size(), batch, inverse, device,
                                      as_stream(stream));
            },
            [&] {
                over_parts(batch, [&](const auto& part, double* scratch, double*) {
                    part.kit.apply(sc.data + part.scaling, xv.data + part.entry, inverse, scratch,
                                   out.data + part.entry);
                    return 0;
                });
            });
    }
    void nt_hessian_into(const ArrayRef& scaling, const ArrayRef& output, uint64_t batch,
                         bool inverse, uint64_t stream) const {
        const uint64_t n = rows();
        const VectorView sc = checked_vector_view(scaling, scaling_length(batch), "scaling");
        const VectorView out = checked_vector_view(
            output, kit_length(checked_product(n, n, "batch", "rows * rows"), batch,
                               "rows * rows * batch"),
            "out");
        require_same_device(sc, out);
        run_on(
            out,
            [&](int device) {
                device_fns().nt_hessian(sc.data, out.data, size(), batch, inverse, device,
                                        as_stream(stream));
            },
            [&] {
                const auto kit = self().kit();
                const uint64_t m = kit.scaling_length();
                run_kit_items(batch, n * n, 0, [&](uint64_t b, double*, double*) {
                    const double* item = sc.data + b * m;
                    double* h = out.data + b * n * n;
                    for (uint64_t i = 0; i < n; ++i) {
                        for (uint64_t j = i; j < n; ++j) {
                            const double v = kit.hessian_entry(item, i, j, inverse);
                            h[i * n + j] = v;
                            h[j * n + i] = v;
                        }
                    }
                    return 0;
                });
            });
    }

    // The coupling-safe fills: scale * H (or H^-1) into every stored entry
    // of an item's diagonal block; every other stored entry keeps its value.
    // The checks and index errors are those of the documented fills, the
    // grid covering rows * batch rows from row_offset.
    void nt_hessian_values_into(SparseLayout layout, const KitFillArgs& args) const {
        const bool csr = layout == SparseLayout::Csr;
        const uint64_t grid_rows = kit_length(rows(), args.batch, "rows * batch");
        const VectorView sc =
            checked_vector_view(args.scaling, scaling_length(args.batch), "scaling");
        const IndexView first = make_index_view(args.first_index, csr ? "indptr" : "row_indices");
        const IndexView second =
            make_index_view(args.second_index, csr ? "indices" : "col_indices");
        const VectorView values =
            checked_vector_view(args.values, csr ? second.size : first.size, "values");
        if (!csr) check_length(second.size, first.size, "COO col_indices");
        require_same_device(sc, values);
        require_same_index_device(first, second, sc);
        const FillGrid grid{args.row_offset, rows(), args.batch};
        run_on(
            sc,
            [&](int device) {
                if (csr) {
                    require_csr_indptr_covers(first.size, args.row_offset, grid_rows);
                    device_fns().nt_hessian_csr(sc.data, first.data, second.data, values.data,
                                                values.size, size(), args.row_offset, args.batch,
                                                args.inverse, args.scale, device,
                                                as_stream(args.stream));
                } else {
                    device_fns().nt_hessian_coo(sc.data, first.data, second.data, values.data,
                                                values.size, size(), args.row_offset, args.batch,
                                                args.inverse, args.scale, device,
                                                as_stream(args.stream));
                }
            },
            [&] {
                const KitFillValue<decltype(self().kit())> value{self().kit(), sc.data,
                                                                 args.inverse, args.scale};
                if (csr) {
                    fill_csr(first, second, values, grid, value, OffBlock::Keep);
                } else {
                    fill_coo(first, second, values, grid, value, OffBlock::Keep);
                }
            });
    }

    void jordan_product_into(const ArrayRef& x, const ArrayRef& y, const ArrayRef& output,
                             uint64_t batch, uint64_t stream) const {
        binary_into(x, y, output, batch, stream, "x", "y", device_fns().jordan_product,
                    [](const auto& part, const double* a, const double* b, double* scratch,
                       double* out) {
                        part.jordan_product(a, b, scratch, out);
                        return 0;
                    });
    }

    void jordan_divide_into(const ArrayRef& lam, const ArrayRef& v, const ArrayRef& output,
                            uint64_t batch, uint64_t stream) const {
        binary_into(lam, v, output, batch, stream, "lam", "v", device_fns().jordan_divide,
                    [](const auto& part, const double* a, const double* b, double* scratch,
                       double* out) { return part.jordan_divide(a, b, scratch, out) ? 0 : 1; });
    }

private:
    const Cone& self() const { return static_cast<const Cone&>(*this); }
    uint64_t rows() const { return self().kit().rows(); }
    uint64_t size() const { return self().kit_size(); }
    const char* label() const { return Cone::kit_label(); }
    const KitDeviceFns& device_fns() const { return Cone::kit_device(); }

    // Runs body(part, scratch, &least) over the parts of a host call (see
    // KitPart): whole items, or runs of an entrywise cone's units, in
    // which case a refused run is walked again unit by unit to find the
    // refused unit. The outcome names the first refused item (batch when
    // none was refused).
    template <class Body>
    ItemsOutcome over_parts(uint64_t batch, Body&& body) const {
        if constexpr (Cone::kEntrywise) {
            constexpr uint64_t unit_rows = Cone::kUnitRows;
            const uint64_t units_per_item = rows() / unit_rows;
            const uint64_t total = units_per_item * batch;
            const auto unit = self().kit_of(1);
            const uint64_t per_unit = unit.scaling_length();
            auto run = [&](uint64_t first, uint64_t length) {
                return KitPart<decltype(unit)>{self().kit_of(length), first * unit_rows,
                                               first * per_unit};
            };
            const uint64_t runs = (total + kEntryRun - 1) / kEntryRun;
            auto length_of = [&](uint64_t k) {
                return total - k * kEntryRun < kEntryRun ? total - k * kEntryRun : kEntryRun;
            };
            ItemsOutcome outcome = run_kit_items(
                runs, kEntryRun * (unit_rows + per_unit), unit.scratch_length(),
                [&](uint64_t k, double* scratch, double* least) {
                    return body(run(k * kEntryRun, length_of(k)), scratch, least);
                });
            if (outcome.first_refused == runs) {
                outcome.first_refused = batch;
                return outcome;
            }
            const uint64_t first = outcome.first_refused * kEntryRun;
            std::vector<double> scratch(unit.scratch_length());
            for (uint64_t e = first; e < first + length_of(outcome.first_refused); ++e) {
                double least = INFINITY;
                const int code = body(run(e, 1), scratch.data(), &least);
                if (code != 0) return {e / units_per_item, code, outcome.least};
            }
            return {batch, 0, outcome.least};  // not reached: the run refused a unit
        } else {
            const auto kit = self().kit();
            const uint64_t n = kit.rows(), m = kit.scaling_length();
            return run_kit_items(batch, n + m, kit.scratch_length(),
                                 [&](uint64_t b, double* scratch, double* least) {
                                     return body(KitPart<decltype(kit)>{kit, b * n, b * m},
                                                 scratch, least);
                                 });
        }
    }

    // Two inputs of rows * batch entries and an output like them; only the
    // Jordan division refuses (lam not strictly interior).
    template <class DeviceFn, class Op>
    void binary_into(const ArrayRef& a, const ArrayRef& b, const ArrayRef& output, uint64_t batch,
                     uint64_t stream, const char* a_name, const char* b_name, DeviceFn device_fn,
                     Op op) const {
        const uint64_t length = kit_length(rows(), batch, "rows * batch");
        const VectorView av = checked_vector_view(a, length, a_name);
        const VectorView bv = checked_vector_view(b, length, b_name);
        const VectorView out = checked_vector_view(output, length, "out");
        require_same_input_device(av, bv);
        require_same_device(av, out);
        run_on(
            out,
            [&](int device) {
                device_fn(av.data, bv.data, out.data, size(), batch, device, as_stream(stream));
            },
            [&] {
                const ItemsOutcome outcome =
                    over_parts(batch, [&](const auto& part, double* scratch, double*) {
                        return op(part.kit, av.data + part.entry, bv.data + part.entry, scratch,
                                  out.data + part.entry);
                    });
                if (outcome.first_refused < batch) {
                    kit_refuse(label(), "Jordan division", a_name, outcome.first_refused,
                               "is not strictly interior");
                }
            });
    }
};

}  // namespace dravik::mirel::cones::cpp
