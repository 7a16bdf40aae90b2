// One registration function per group of names, called by the module entry
// in the order that fixes the module's attributes and registered types.
#pragma once

#include <nanobind/nanobind.h>

namespace dravik::mirel::cones::cpp {

void register_capabilities(nanobind::module_& m);
void register_zero_cone(nanobind::module_& m);
void register_nonnegative_cone(nanobind::module_& m);
void register_exponential_cone(nanobind::module_& m);
void register_second_order_cone(nanobind::module_& m);
void register_psd_cone(nanobind::module_& m);
void register_psd_functions(nanobind::module_& m);

}  // namespace dravik::mirel::cones::cpp
