// The GPU engine's arithmetic, run on the CPU by teams of one and of three
// threads, against the CPU kernel's vectorised functions: every value must
// match bit for bit, the row sums and totals included. Where a device is
// present, the engine's batches are held to the same standard; elsewhere,
// -gpu must stop the run with its cause.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "hmm/gpu_arith.h"
#include "hmm/gpu_engine.h"
#include "hmm/gpu_plan.h"
#include "hmm/kernel.h"
#include "support/test_support.h"

namespace {

using gpu_arith::tri_size;
using Vec = std::vector<double>;

// Threads that meet at every sync, as the threads of a block do.
class Barrier {
public:
    explicit Barrier(int n) : n_(n) {}
    void wait() {
        std::unique_lock<std::mutex> lock(m_);
        long const generation = generation_;
        if (++waiting_ == n_) {
            waiting_ = 0;
            ++generation_;
            cv_.notify_all();
        } else {
            cv_.wait(lock, [&] { return generation != generation_; });
        }
    }

private:
    std::mutex m_;
    std::condition_variable cv_;
    int n_, waiting_ = 0;
    long generation_ = 0;
};

struct ThreadTeam {
    int r, s;
    Barrier* barrier;
    int rank() const { return r; }
    int size() const { return s; }
    void sync() const { barrier->wait(); }
};

// Runs f(team) on `size` threads; returns what rank 0 returned.
template <class F>
double on_team(int size, F const& f) {
    Barrier barrier(size);
    std::vector<double> value(size);
    std::vector<std::thread> threads;
    for (int r = 0; r < size; ++r) threads.emplace_back([&, r] { value[r] = f(ThreadTeam{r, size, &barrier}); });
    for (auto& t : threads) t.join();
    for (int r = 1; r < size; ++r) EXPECT_EQ(std::memcmp(&value[r], &value[0], sizeof(double)), 0) << "rank " << r;
    return value[0];
}

::testing::AssertionResult same_bits(Vec const& a, Vec const& b) {
    if (a.size() != b.size()) return ::testing::AssertionFailure() << "sizes " << a.size() << " and " << b.size();
    for (std::size_t k = 0; k < a.size(); ++k)
        if (std::memcmp(&a[k], &b[k], sizeof(double)) != 0)
            return ::testing::AssertionFailure() << "entry " << k << ": " << a[k] << " vs " << b[k];
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult same_bits(double a, double b) { return same_bits(Vec{a}, Vec{b}); }

Vec random_values(std::mt19937_64& rng, std::size_t n, double scale) {
    std::uniform_real_distribution<double> u(0.05, 1.0);
    Vec v(n);
    for (double& x : v) x = u(rng) * scale;
    return v;
}

Vec random_alleles(std::mt19937_64& rng, int K) {
    Vec h(K);
    for (double& x : h) x = static_cast<double>(rng() & 1);
    return h;
}

// Switch rates as the genetic map gives them: stay + (K-1) jump = 1.
std::pair<double, double> switch_rates(int K, double rho) {
    double const jump = (1.0 - std::exp(-rho / K)) / K;
    return {1.0 - (K - 1) * jump, jump};
}

struct StepCase {
    int K;
    double scale;     // magnitude of the values going in
    double emission;  // scale of the emission column; tiny forces rescaling
    int team;
};

std::string name_of(StepCase const& c) {
    return "K=" + std::to_string(c.K) + " scale=" + std::to_string(c.scale) +
           " emission=" + std::to_string(c.emission) + " team=" + std::to_string(c.team);
}

StepCase const step_cases[] = {
    {1, 1.0, 0.5, 1},   {1, 1e-60, 1e-50, 3}, {3, 1.0, 0.3, 3},     {8, 1.0, 0.7, 1},  {8, 1e-80, 1e-40, 3},
    {13, 1.0, 0.2, 3},  {16, 1e-3, 1.0, 3},   {37, 1e-90, 1e-30, 3}, {37, 1.0, 0.9, 1}, {64, 1.0, 0.5, 3},
};

TEST(GpuArith, RecursionStepsMatchTheCpuKernel) {
    std::mt19937_64 rng(11);
    for (StepCase const& c : step_cases) {
        SCOPED_TRACE(name_of(c));
        int const K = c.K;
        std::size_t const n = tri_size(K);
        Vec const h = random_alleles(rng, K);
        Vec const ecol = random_values(rng, 3, c.emission);
        Vec const Fp = random_values(rng, n, c.scale);
        Vec Rp(K);
        double const Tp = hmm_kernel::row_sums(K, Fp.data(), Rp.data());
        auto const [stay, jump] = switch_rates(K, 0.7);
        Vec work(4 * K + 1);

        {  // first SNP
            Vec F(n), R(K), Fg(n), Rgpu(K);
            double const t = hmm_kernel::forward_first(K, h.data(), ecol.data(), F.data(), R.data());
            double const tg = on_team(c.team, [&](auto const& team) {
                return gpu_arith::forward_first(team, K, h.data(), ecol.data(), Fg.data(), Rgpu.data(), work.data());
            });
            EXPECT_TRUE(same_bits(F, Fg));
            EXPECT_TRUE(same_bits(R, Rgpu));
            EXPECT_TRUE(same_bits(t, tg));
        }
        {  // forward step, rescaled when the emissions are tiny
            Vec F(n), R(K), Fg = Fp, Rgpu = Rp;
            double const t = hmm_kernel::forward_step(K, stay, jump, Fp.data(), Rp.data(), Tp, h.data(), ecol.data(),
                                                      F.data(), R.data());
            double const tg = on_team(c.team, [&](auto const& team) {
                return gpu_arith::forward_step(team, K, stay, jump, Fg.data(), Rgpu.data(), Tp, h.data(), ecol.data(),
                                               work.data());
            });
            EXPECT_TRUE(same_bits(F, Fg));
            EXPECT_TRUE(same_bits(R, Rgpu));
            EXPECT_TRUE(same_bits(t, tg));
        }
        {  // E * B
            Vec G(n), R(K), Gg(n), Rgpu(K);
            double const t = hmm_kernel::weighted(K, Fp.data(), h.data(), ecol.data(), G.data(), R.data());
            double const tg = on_team(c.team, [&](auto const& team) {
                return gpu_arith::sweep(team, K, gpu_arith::WeightedRow{Fp.data(), Gg.data(), h.data(), ecol.data()},
                                        Gg.data(), Rgpu.data(), work.data());
            });
            EXPECT_TRUE(same_bits(G, Gg));
            EXPECT_TRUE(same_bits(R, Rgpu));
            EXPECT_TRUE(same_bits(t, tg));
        }
        {  // backward step on G, and B from the same step
            Vec G(n), R(K), B(n), Gg = Fp, Rgpu(K), Bg(n);
            double const t = hmm_kernel::gamma_step(K, stay, jump, Fp.data(), Rp.data(), Tp, h.data(), ecol.data(),
                                                    G.data(), R.data());
            hmm_kernel::backward_from_gamma(K, stay, jump, Fp.data(), Rp.data(), Tp, B.data());
            gpu_arith::Coefficients const co = gpu_arith::coefficients(stay, jump, Tp);
            double const tg = on_team(c.team, [&](auto const& team) {
                return gpu_arith::sweep(
                    team, K, gpu_arith::GammaRow{Gg.data(), Bg.data(), Rp.data(), h.data(), ecol.data(), co},
                    Gg.data(), Rgpu.data(), work.data());
            });
            EXPECT_TRUE(same_bits(G, Gg));
            EXPECT_TRUE(same_bits(B, Bg));
            EXPECT_TRUE(same_bits(R, Rgpu));
            EXPECT_TRUE(same_bits(t, tg));
        }
    }
}

TEST(GpuArith, PosteriorAndSummariesMatchTheCpuKernel) {
    struct Case {
        int K;
        double rate, left, right;  // left or right 0: no distance step
        int team;
    };
    Case const cases[] = {{1, 1e-3, 10, 20, 1}, {5, 2e-4, 0, 0, 3},    {8, 5e-4, 300, 700, 3},
                          {19, 1e-2, 1, 0, 1},  {30, 3e-4, 1500, 2, 3}, {41, 1e-5, 50, 5000, 3}};
    std::mt19937_64 rng(23);
    for (Case const& c : cases) {
        SCOPED_TRACE("K=" + std::to_string(c.K) + " left=" + std::to_string(c.left));
        int const K = c.K;
        std::size_t const n = tri_size(K);
        Vec const F = random_values(rng, n, 1e-20), B = random_values(rng, n, 1e3);
        Vec P(n), scratch(2 * K), Pg(n), work(4 * K + 1 + 3 * (2 * K));
        hmm_kernel::posterior(K, c.rate, c.left, c.right, F.data(), B.data(), P.data(), scratch.data());
        auto const l = hmm_kernel::distance_switch_rates(K, c.rate, c.left);
        auto const r = hmm_kernel::distance_switch_rates(K, c.rate, c.right);
        bool const propagate = c.left != 0.0 && c.right != 0.0;
        on_team(c.team, [&](auto const& team) {
            gpu_arith::posterior(team, K, propagate, l.first, l.second, r.first, r.second, F.data(), B.data(),
                                 Pg.data(), work.data());
            return 0.0;
        });
        ASSERT_TRUE(same_bits(P, Pg));

        Vec m(K), mg(K);
        double const sum = hmm_kernel::haplotype_probabilities(K, P.data(), m.data());
        double const sumg = on_team(c.team, [&](auto const& team) {
            return gpu_arith::sweep(team, K, gpu_arith::SumRow{P.data()}, P.data(), mg.data(), work.data());
        });
        EXPECT_TRUE(same_bits(m, mg));
        EXPECT_TRUE(same_bits(sum, sumg));

        // A random binary tree over the K leaves; every node is reported.
        std::vector<int> roots(K), a(K, -1), b(K, -1);
        for (int k = 0; k < K; ++k) roots[k] = k;
        while (roots.size() > 1) {
            std::size_t const x = rng() % roots.size();
            int const u = roots[x];
            roots.erase(roots.begin() + x);
            std::size_t const y = rng() % roots.size();
            a.push_back(u);
            b.push_back(roots[y]);
            roots[y] = static_cast<int>(a.size()) - 1;
        }
        hmm_kernel::BranchLayout const layout(K, a, b);
        int const nodes = layout.n_nodes();
        std::vector<int> marked(nodes);
        for (int v = 0; v < nodes; ++v) marked[v] = v;
        Vec both(nodes), one(nodes), bwork(2 * nodes), out(2 * nodes);
        hmm_kernel::branch_probabilities(layout, P.data(), m.data(), both.data(), one.data(), bwork.data());
        gpu_arith::TreeView const view{nodes,           layout.child_a.data(), layout.child_b.data(),
                                       layout.lo.data(), layout.hi.data(),      layout.order.data(),
                                       marked.data(),    nodes};
        on_team(c.team, [&](auto const& team) {
            gpu_arith::branch_probabilities(team, K, view, P.data(), m.data(), out.data(), work.data() + 4 * K + 1);
            return 0.0;
        });
        Vec expected;
        for (int v = 0; v < nodes; ++v) expected.insert(expected.end(), {both[v], one[v]});
        EXPECT_TRUE(same_bits(expected, out));
    }
}

// ---- Whole individuals -------------------------------------------------------------

struct RunData {
    hmm_kernel::Panel panel;
    hmm_kernel::Schedule schedule;
    std::vector<hmm_kernel::BranchLayout> layouts;
    std::vector<std::vector<int>> marked;
};

// A panel of K haplotypes and L SNPs; tiny emissions (scale) make the totals
// underflow every few SNPs, so both passes rescale. Positions: every SNP now and then,
// points between SNPs, and the two ends.
RunData make_run(int K, int L, int N, double scale, std::mt19937_64& rng) {
    RunData run;
    hmm_kernel::Panel& p = run.panel;
    p.K = K;
    p.L = L;
    p.N = N;
    for (int s = 0; s < L; ++s) {
        Vec const h = random_alleles(rng, K);
        p.alleles.insert(p.alleles.end(), h.begin(), h.end());
        double const rho = 0.01 + 2.0 * static_cast<double>(rng() % 1000) / 1000.0;
        auto const [stay, jump] = switch_rates(K, rho);
        p.stay.push_back(s == 0 ? 0.0 : stay);
        p.jump.push_back(s == 0 ? 0.0 : jump);
        p.position.push_back(1000.0 * s + static_cast<double>(rng() % 500));
        p.rate_per_base.push_back(1e-4 * static_cast<double>(1 + rng() % 50));
    }
    for (int g = 0; g < 4; ++g)
        for (int a = 0; a < 3; ++a) p.emission[g][a] = g == 3 ? 1.0 : (a == g ? 0.9 : 0.05) * scale;
    for (int k = 0; k < N * L; ++k) p.genotypes.push_back(static_cast<std::uint8_t>(rng() % 4));
    std::vector<double> positions = {p.position.front(), p.position.back()};
    for (int s = 0; s + 1 < L; ++s) {
        if (rng() % 3 == 0) positions.push_back(p.position[s]);
        if (rng() % 3 == 0) positions.push_back(0.5 * (p.position[s] + p.position[s + 1]));
    }
    run.schedule = hmm_kernel::Schedule(L, hmm_kernel::find_flanks(p.position, p.rate_per_base, positions));
    for (std::size_t q = 0; q < positions.size(); ++q) {
        // A caterpillar over a shuffled leaf order: each merge joins the
        // last node with a new leaf.
        std::vector<int> a(K, -1), b(K, -1), leaves(K);
        for (int k = 0; k < K; ++k) leaves[k] = k;
        std::shuffle(leaves.begin(), leaves.end(), rng);
        int last = leaves[0];
        for (int v = 1; v < K; ++v) {
            a.push_back(last);
            b.push_back(leaves[v]);
            last = static_cast<int>(a.size()) - 1;
        }
        run.layouts.emplace_back(K, a, b);
        std::vector<int> marked;
        for (int v = 0; v + 1 < run.layouts.back().n_nodes(); ++v)
            if (rng() % 2) marked.push_back(v);
        run.marked.push_back(marked);
    }
    return run;
}

struct Expected {
    Vec m, branches, P;
};

Expected cpu_results(RunData const& run, hmm_gpu::HostPlan const& plan, int individual) {
    int const K = run.panel.K;
    std::size_t const n = tri_size(K);
    int const positions = plan.n_positions();
    Expected e{Vec(static_cast<std::size_t>(positions) * K), Vec(plan.branch_offset(positions)),
               Vec(positions * n)};
    std::size_t max_nodes = 1;
    for (auto const& l : run.layouts) max_nodes = std::max(max_nodes, static_cast<std::size_t>(l.n_nodes()));
    Vec both(max_nodes), one(max_nodes), work(2 * max_nodes);
    auto sink = [&](int p, const double* P) {
        std::copy(P, P + n, e.P.begin() + p * n);
        double* m = e.m.data() + static_cast<std::size_t>(p) * K;
        hmm_kernel::haplotype_probabilities(K, P, m);
        hmm_kernel::branch_probabilities(run.layouts[p], P, m, both.data(), one.data(), work.data());
        double* out = e.branches.data() + plan.branch_offset(p);
        for (int v : run.marked[p]) {
            *out++ = both[v];
            *out++ = one[v];
        }
    };
    hmm_kernel::Workspace workspace;
    workspace.run(run.panel, run.schedule, run.panel.genotypes_of(individual), sink);
    return e;
}

TEST(GpuArith, WholeIndividualsMatchTheCpuPipeline) {
    struct Case {
        int K, L;
        double scale;  // of the emissions; tiny: both passes rescale
        int team;
    };
    Case const cases[] = {{1, 6, 1.0, 1},    {2, 1, 1.0, 3},   {5, 40, 1e-12, 3}, {8, 25, 1.0, 1},
                          {11, 60, 1e-9, 3}, {17, 30, 1e-30, 3}, {24, 12, 1e-45, 3}, {3, 8, 1e-120, 3}};
    std::mt19937_64 rng(5);
    for (Case const& c : cases) {
        SCOPED_TRACE("K=" + std::to_string(c.K) + " L=" + std::to_string(c.L) +
                     " scale=" + std::to_string(c.scale));
        int const N = 2;
        RunData const run = make_run(c.K, c.L, N, c.scale, rng);
        hmm_gpu::Outputs outputs;
        outputs.layouts = &run.layouts;
        outputs.marked = &run.marked;
        outputs.pair_posteriors = true;
        hmm_gpu::HostPlan const plan(run.panel, run.schedule, outputs);
        std::vector<gpu_arith::TreeView> views;
        gpu_arith::Plan const bound = plan.bind_host(views);
        for (int individual = 0; individual < N; ++individual) {
            Expected const e = cpu_results(run, plan, individual);
            hmm_gpu::HostIndividual ind(plan);
            on_team(c.team, [&](auto const& team) {
                gpu_arith::run_individual(team, bound, run.panel.genotypes_of(individual), ind.buffers, ind.output());
                return 0.0;
            });
            ASSERT_EQ(ind.status, gpu_arith::status_ok);
            std::size_t const P = static_cast<std::size_t>(plan.n_positions());
            EXPECT_TRUE(same_bits(e.m, Vec(ind.view.m, ind.view.m + P * c.K)));
            EXPECT_TRUE(same_bits(e.branches, Vec(ind.view.branches, ind.view.branches + plan.branch_offset(P))));
            EXPECT_TRUE(same_bits(e.P, Vec(ind.view.pair_posteriors, ind.view.pair_posteriors + P * tri_size(c.K))));
        }
    }
}

TEST(GpuArith, PlanRejectsLayoutsThatDoNotFit) {
    std::mt19937_64 rng(9);
    RunData run = make_run(4, 5, 1, 1.0, rng);
    hmm_gpu::Outputs outputs;
    outputs.layouts = &run.layouts;
    outputs.marked = &run.marked;
    run.marked.pop_back();
    EXPECT_THROW(hmm_gpu::HostPlan(run.panel, run.schedule, outputs), std::invalid_argument);
    run.marked.push_back({99});
    EXPECT_THROW(hmm_gpu::HostPlan(run.panel, run.schedule, outputs), std::invalid_argument);
}

// ---- The engine on a device -----------------------------------------------------

TEST(GpuEngine, WithoutADeviceGpuRunsStopWithTheCause) {
    std::string const why = hmm_gpu::unavailable_reason();
    if (why.empty()) GTEST_SKIP() << "a usable GPU is present";
    std::mt19937_64 rng(3);
    RunData const run = make_run(4, 5, 1, 1.0, rng);
    EXPECT_THROW(hmm_gpu::Engine(run.panel, run.schedule, hmm_gpu::Outputs{}), hmm_gpu::gpu_error);

    // Stopped before any input is read: these files do not exist.
    ketra_test::TempDir dir;
    auto const r = ketra_test::run_ketra({"-h", "a.hap", "-l", "a.legend", "-m", "a.map", "-tree_file", "t.txt", "-g",
                                          "g.gen", "-o", "run", "-int", "100", "200", "-gpu"},
                                         dir.path().string());
    EXPECT_EQ(r.status, 1);
    std::string const tail = "Cannot run with -gpu: " + why + "\nProgram terminated\n";
    ASSERT_GE(r.out.size(), tail.size()) << r.out;
    EXPECT_EQ(r.out.substr(r.out.size() - tail.size()), tail);
    EXPECT_EQ(r.out.find("reading"), std::string::npos) << r.out;
    EXPECT_TRUE(r.err.empty()) << r.err;
}

TEST(GpuEngine, BatchesMatchTheCpuPipeline) {
    std::string const why = hmm_gpu::unavailable_reason();
    if (!why.empty()) GTEST_SKIP() << why;
    struct Case {
        int K, L, N;
        double scale;
        bool force_global, pair_posteriors;
    };
    Case const cases[] = {
        {1, 5, 3, 1.0, false, true},     {13, 50, 40, 1e-30, false, true}, {13, 50, 40, 1e-30, true, true},
        {37, 80, 700, 1.0, false, false}, {200, 120, 300, 1e-20, false, false}, {200, 40, 20, 1.0, true, true},
        {300, 30, 6, 1e-40, false, false},  // too large for shared memory
    };
    std::mt19937_64 rng(17);
    for (Case const& c : cases) {
        SCOPED_TRACE("K=" + std::to_string(c.K) + " N=" + std::to_string(c.N) +
                     (c.force_global ? " global" : ""));
        RunData const run = make_run(c.K, c.L, c.N, c.scale, rng);
        hmm_gpu::Outputs outputs;
        outputs.layouts = &run.layouts;
        outputs.marked = &run.marked;
        outputs.pair_posteriors = c.pair_posteriors;
        hmm_gpu::HostPlan const plan(run.panel, run.schedule, outputs);
        hmm_gpu::Engine engine(run.panel, run.schedule, outputs, c.force_global);
        EXPECT_EQ(engine.shared_memory_kernel(), !c.force_global && c.K <= 200);
        std::vector<int> order(c.N);
        for (int k = 0; k < c.N; ++k) order[k] = c.N - 1 - k;  // any order, handed back as given
        std::size_t const P = static_cast<std::size_t>(plan.n_positions());
        std::size_t next = 0;
        engine.run(order, [&](hmm_gpu::IndividualResult const& r) {
            ASSERT_LT(next, order.size());
            ASSERT_EQ(r.individual, order[next++]);
            Expected const e = cpu_results(run, plan, r.individual);
            EXPECT_TRUE(same_bits(e.m, Vec(r.haplotype_probs, r.haplotype_probs + P * c.K)));
            EXPECT_TRUE(same_bits(e.branches, Vec(r.branches, r.branches + plan.branch_offset(P))));
            if (c.pair_posteriors)
                EXPECT_TRUE(same_bits(e.P, Vec(r.pair_posteriors, r.pair_posteriors + P * tri_size(c.K))));
            else
                EXPECT_EQ(r.pair_posteriors, nullptr);
        });
        EXPECT_EQ(next, order.size());
    }
}

}  // namespace
