// Sums over all runs of neighbouring terms.
//
// If a sliding sum added the term that enters and subtracted the one that leaves, the rounding error of one huge term
// would stay in it for good. So nothing is subtracted: the terms are cut into blocks of one run's length, and each run
// is the end of one block, summed backwards, and the beginning of the next.
#pragma once

#include <cstdint>

// For every run of `run` terms (at least 1) out of n, in order:
//
//   add(sum, i)    adds term i to a sum, which begins as Sum{}
//   use(i, a, b)   takes the run that begins with term i, whose sum is a + b
//   ends           working memory of `run` sums
// Allocates nothing itself. Always inlined, so that it is compiled for the same machine as its caller.
template <class Sum, class Add, class Use>
[[gnu::always_inline]] inline void sum_runs(int64_t n, int64_t run, Sum* ends, const Add& add, const Use& use) {
    for (int64_t block = 0; block + run <= n; block += run) {
        Sum sum{};
        for (int64_t i = run; i-- > 0;) {
            add(sum, block + i);
            ends[i] = sum;
        }
        sum = Sum{};
        use(block, ends[0], sum);
        for (int64_t i = 1; i < run && block + i + run <= n; i++) {
            add(sum, block + run + i - 1);
            use(block + i, ends[i], sum);
        }
    }
}
