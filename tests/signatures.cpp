// Fails to compile where an internal function that tools call no longer takes its records as it says.
#include <cstdint>
#include <type_traits>

#include "ovcdec.h"
#include "ovcdeep.h"
#include "ovcenc.h"
#include "ovsync.h"

namespace {

template <auto function, class Signature>
constexpr bool has_signature = std::is_same_v<decltype(function), Signature*>;

static_assert(has_signature<ovc_known_init, int(const char*, ovc_known*)>);
static_assert(has_signature<ovc_check_frame, int(const ovc_frame*, char*, uint32_t*)>);
static_assert(has_signature<ovc_twin_margin, double(const float*, const ovc_frame*, int32_t, char*)>);
static_assert(has_signature<ovc_decode_soft, int(const float*, int32_t, char*, uint32_t*, ovc_soft_info*)>);
static_assert(has_signature<ovc_deep_search, int32_t(const ov_specmap*, const ovc_known*, int32_t, double, double,
                                                     double, double, double, int32_t, ovc_deep_hit*, double*)>);
static_assert(has_signature<ovc_deep_refine, int(const ov_baseband&, const ov_specmap*, const ovc_known*,
                                                 const ovc_deep_hit*, double, double, ov_hyp&)>);

}  // namespace
