// One individual's passes end to end: the forward pass keeping the arrays
// the checkpoint plan asks for, the backward pass, and the posterior of every
// position as soon as its flanks are ready, handed to the caller's sink.
#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "engine/kernel.h"
#include "engine/kernel_vectors.h"

namespace hmm_kernel {

// ---- Per-individual pipeline -----------------------------------------------

int Workspace::kept_slots(int K, std::size_t kept_budget) {
    std::size_t const per = (tri_size(K) + static_cast<std::size_t>(K)) * sizeof(double);
    std::size_t const slots = per == 0 ? 1 : kept_budget / per;
    return static_cast<int>(std::max<std::size_t>(1, std::min<std::size_t>(slots, 1 << 20)));
}

std::size_t Workspace::bytes(int K, Schedule const& schedule, std::size_t kept_budget) {
    std::size_t const n = tri_size(K), k = static_cast<std::size_t>(K);
    std::size_t const slots =
        std::min<std::size_t>(static_cast<std::size_t>(schedule.n_kept), kept_slots(K, kept_budget));
    // f, b, g x 2, p; row sums rf x 2, rg x 2, rb, m, scratch (2K).
    return sizeof(double) * (5 * n + 9 * k + slots * (n + k)) + sizeof(Kept) * slots;
}

void Workspace::reserve(int K, int slots) {
    std::size_t const n = tri_size(K);
    if (K != K_) {
        K_ = K;
        f_.assign(n, 0.0);
        b_.assign(n, 0.0);
        p_.assign(n, 0.0);
        g_[0].assign(n, 0.0);
        g_[1].assign(n, 0.0);
        for (int k = 0; k < 2; ++k) {
            rf_[k].assign(K, 0.0);
            rg_[k].assign(K, 0.0);
        }
        rb_.assign(K, 0.0);
        m_.assign(K, 0.0);
        scratch_.assign(2 * static_cast<std::size_t>(K), 0.0);
        kept_.clear();
    }
    if (static_cast<int>(kept_.size()) < slots) {
        kept_.resize(slots);
        for (Kept& x : kept_) {
            x.F.resize(n);
            x.R.resize(K);
        }
    }
}

// Forward values from a held array (or the first SNP) up to kept index
// step.to, in f_, storing the listed kept arrays in their slots.
// Forward values from a held array (or the first SNP) up to kept index
// step.to. A step that reaches a kept SNP writes straight into its slot and the
// next step reads from there; the others work in f_.
void Workspace::sweep(Panel const& panel, const std::uint8_t* genotypes, CheckpointPlan::Sweep const& step) {
    int const K = panel.K;
    std::size_t next = 0;
    // Where the values of SNP s go: its slot when it is stored, else f_.
    auto target = [&](int s) -> Kept* {
        if (next < step.store.size() && kept_snp_[step.store[next]] == s) return &kept_[plan_.slot_of[step.store[next++]]];
        return nullptr;
    };
    auto finish = [&](Kept* k, double total, const double* R) {
        if (!k) return;
        std::memcpy(k->R.data(), R, K * sizeof(double));
        k->total = total;
        k->rescaled = total < underflow_limit;
    };
    int r = 0;
    const double* Fp;
    const double* Rp;
    double total;
    int s;
    if (step.from < 0) {
        s = 0;
        Kept* const k = target(0);
        double* const F = k ? k->F.data() : f_.data();
        total = forward_first(K, panel.h(0), panel.emission[genotypes[0]], F, rf_[r].data());
        ++forward_steps_;
        finish(k, total, rf_[r].data());
        if (k) k->rescaled = false;  // the first SNP is never rescaled
        Fp = F;
    } else {
        Kept const& from = kept_[plan_.slot_of[step.from]];
        s = kept_snp_[step.from];
        Fp = from.F.data();
        Rp = from.R.data();
        total = from.total;
        std::memcpy(rf_[r].data(), from.R.data(), K * sizeof(double));
    }
    Rp = rf_[r].data();
    int const last = kept_snp_[step.to];
    while (s < last) {
        ++s;
        Kept* const k = target(s);
        double* const F = k ? k->F.data() : f_.data();
        total = forward_step(K, panel.stay[s], panel.jump[s], Fp, Rp, total, panel.h(s),
                             panel.emission[genotypes[s]], F, rf_[1 - r].data(), k != nullptr);
        ++forward_steps_;
        r = 1 - r;
        finish(k, total, rf_[r].data());
        Fp = F;
        Rp = rf_[r].data();
    }
}

void Workspace::run(Panel const& panel, Schedule const& schedule, const std::uint8_t* genotypes,
                    PosteriorSink sink) {
    int const K = panel.K, L = panel.L;
    forward_steps_ = 0;
    if (L == 0 || K == 0 || schedule.flanks.empty()) return;
    if (schedule.L != L) throw std::invalid_argument("schedule does not match the panel");
    // Positions in the order the backward pass finishes them: by right flank
    // descending, then by left flank descending, so that the kept arrays are
    // used in descending order, as the checkpoint plan needs. Flanks that do
    // not allow that order (only made up ones) keep every array.
    visit_.assign(schedule.by_right.begin(), schedule.by_right.end());
    bool descending = true;
    int previous = L;
    for (int s = L - 1; s >= 0; --s) {
        auto const first = visit_.begin() + schedule.by_right_start[s];
        auto const last = visit_.begin() + schedule.by_right_start[s + 1];
        std::stable_sort(first, last, [&](int a, int b) { return schedule.flanks[a].left > schedule.flanks[b].left; });
        for (auto it = first; it != last; ++it) {
            descending = descending && schedule.flanks[*it].left <= previous;
            previous = schedule.flanks[*it].left;
        }
    }
    carried_.assign(L, false);
    for (Flank const& f : schedule.flanks)
        if (f.left_distance != 0.0 && f.right_distance != 0.0) carried_[f.right] = true;
    int const slots = descending ? std::min(schedule.n_kept, kept_slots(K, kept_budget_)) : schedule.n_kept;
    plan_ = plan_checkpoints(schedule.n_kept, slots);
    kept_snp_.assign(schedule.n_kept, 0);
    for (int s = 0; s < L; ++s)
        if (schedule.keep_slot[s] >= 0) kept_snp_[schedule.keep_slot[s]] = s;
    reserve(K, plan_.slots);
    double* B = b_.data();
    auto ecol = [&](int s) { return panel.emission[genotypes[s]]; };

    // Kept forward arrays are used in descending order; the sweeps that make
    // each available run when the pass first needs it.
    std::size_t sweeps_done = 0;
    auto kept = [&](int snp) -> Kept const& {
        int const k = schedule.keep_slot[snp];
        while (static_cast<int>(sweeps_done) < plan_.sweeps_before[k])
            sweep(panel, genotypes, plan_.sweeps[sweeps_done++]);
        return kept_[plan_.slot_of[k]];
    };

    // Backward in place on B; the positions with right flank s are finished
    // once B_s is final, that is after its rescaling. Row sums of B are formed
    // only for positions between SNPs, once per SNP.
    bool b_sums = false;
    double tb = 0.0;
    double* m = sink.wants_haplotypes() ? m_.data() : nullptr;
    auto finish = [&](int s) {
        for (int k = schedule.by_right_start[s]; k < schedule.by_right_start[s + 1]; ++k) {
            int const p = visit_[k];
            Flank const& f = schedule.flanks[p];
            Kept const& x = kept(f.left);
            bool const carried = f.left_distance != 0.0 && f.right_distance != 0.0;
            if (carried && !b_sums) {
                tb = row_sums(K, B, rb_.data());
                b_sums = true;
            }
            posterior_from(K, f.rate, f.left_distance, f.right_distance, x.F.data(),
                           x.rescaled ? nullptr : x.R.data(), x.total, B, rb_.data(), tb, p_.data(),
                           scratch_.data(), m);
            sink(p, p_.data(), m);
        }
    };
    auto has_positions = [&](int s) { return schedule.by_right_start[s] < schedule.by_right_start[s + 1]; };
    int lowest = 0;  // no B below the lowest right flank is needed
    while (!has_positions(lowest)) ++lowest;
    // The pass runs on G_s = E_s * B_s in two rolling arrays, the cheaper
    // form of the recursion; B_s itself is formed from G_{s+1} only where a
    // position needs it or the step must rescale. Rescaling divides B_s, as
    // the recursion on B does, and forms G_s again from it, so every value
    // is the same bit for bit.
    int r = 0;
    double* G[2] = {g_[0].data(), g_[1].data()};
    double tg = backward_last(K, panel.h(L - 1), ecol(L - 1), B, rg_[r].data(), L > 1);
    if (lowest < L - 1) weighted(K, B, panel.h(L - 1), ecol(L - 1), G[r], scratch_.data());
    finish(L - 1);
    for (int s = L - 2; s >= lowest; --s) {
        double const stay = panel.stay[s + 1], jump = panel.jump[s + 1];
        // B's row sums come with the step where a position between SNPs needs them.
        bool const sums = carried_[s];
        bool const have_b = has_positions(s);
        double tb_step = 0.0;
        if (have_b)
            tb_step = backward_from_gamma(K, stay, jump, G[r], rg_[r].data(), tg, B, sums ? rb_.data() : nullptr);
        bool rescaled = false;
        double next_tg = 0.0;
        if (s > 0) {
            next_tg = gamma_step(K, stay, jump, G[r], rg_[r].data(), tg, panel.h(s), ecol(s), G[1 - r],
                                 rg_[1 - r].data());
            if (next_tg < underflow_limit) {
                if (!have_b) backward_from_gamma(K, stay, jump, G[r], rg_[r].data(), tg, B);
                divide(tri_size(K), B, next_tg);
                divide(static_cast<std::size_t>(K), rg_[1 - r].data(), next_tg);
                weighted(K, B, panel.h(s), ecol(s), G[1 - r], scratch_.data());
                next_tg = 1.0;
                rescaled = true;
            }
        }
        tg = next_tg;
        r = 1 - r;
        b_sums = sums && !rescaled;
        if (b_sums) tb = tb_step;
        finish(s);
    }
}

}  // namespace hmm_kernel
