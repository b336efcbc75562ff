// Random numbers: the library's generator beside GLib's and the standard library's, which are the
// same Mersenne Twister. Every side is called beyond a library's boundary.

#include "far/random.h"
#include "psp/random.h"
#include "row.h"

#ifdef PSP_PEER_GLIB
#include <glib.h>
#endif

namespace {

constexpr uint32_t SEED = 5489;

// A generator of every side, all with the same seed.
class Generators {
  public:
    Generators()
    {
        far::seed(standard, SEED);
        psp_randResetSeed(psp, SEED);
    }
    ~Generators()
    {
        psp_randDestroy(psp);
#ifdef PSP_PEER_GLIB
        g_rand_free(glib);
#endif
    }
    Generators(const Generators&) = delete;
    Generators& operator=(const Generators&) = delete;

    // As far as everybody's state is made anew a few times.
    bool agree()
    {
        for (int i = 0; i < 2000; ++i) {
            const uint32_t word = psp_randGetUInt32(psp);
            bool same = word == far::draw(standard);
#ifdef PSP_PEER_GLIB
            same = same && word == g_rand_int(glib);
#endif
            if (!same)
                return false;
        }
        return true;
    }

    bench::Server server{};
    PSP_RAND psp = psp_randCreateNoSem(SEED);
    std::mt19937 standard{};
#ifdef PSP_PEER_GLIB
    GRand* glib = g_rand_new_with_seed(SEED);
#endif
};

// Draws n times and keeps the sum.
template <class Draw>
void draw_all(size_t n, Draw draw)
{
    decltype(draw()) sum = 0;
    for (size_t i = 0; i < n; ++i)
        sum += draw();
    benchmark::DoNotOptimize(sum);
}

void word(bench::Row& row)
{
    Generators all;
    if (!all.agree())
        return row.fail("the generators disagree");
    row.psp([&](size_t n) { draw_all(n, [&] { return psp_randGetUInt32(all.psp); }); });
    row.peer(
        "libstdc++", [&](size_t n) { draw_all(n, [&] { return far::draw(all.standard); }); }, 1.0);
#ifdef PSP_PEER_GLIB
    row.peer(
        "GRand", [&](size_t n) { draw_all(n, [&] { return g_rand_int(all.glib); }); }, 1.0);
#endif
    row.run();
}

// The peers' doubles have 53 bits of two words each; the last peer's has 32 of one, like the
// library's.
void real(bench::Row& row)
{
    Generators all;
    if (!all.agree())
        return row.fail("the generators disagree");
    row.psp([&](size_t n) { draw_all(n, [&] { return psp_randGetDouble(all.psp); }); });
    row.peer(
        "libstdc++", [&](size_t n) { draw_all(n, [&] { return far::draw_double(all.standard); }); },
        0.8);
#ifdef PSP_PEER_GLIB
    row.peer(
        "GRand", [&](size_t n) { draw_all(n, [&] { return g_rand_double(all.glib); }); }, 0.8);
#endif
    row.peer(
        "libstdc++, 32 bits",
        [&](size_t n) { draw_all(n, [&] { return far::draw_double32(all.standard); }); }, 0.8);
    row.run();
}

// The first word counts as well: the library makes its words at once, the peers when the first of
// them is asked for.
void reseed(bench::Row& row)
{
    Generators all;
    if (!all.agree())
        return row.fail("the generators disagree");
    row.psp([&](size_t n) {
        for (size_t i = 0; i < n; ++i) {
            psp_randResetSeed(all.psp, static_cast<uint32_t>(i));
            benchmark::DoNotOptimize(psp_randGetUInt32(all.psp));
        }
    });
    row.peer(
        "libstdc++",
        [&](size_t n) {
            for (size_t i = 0; i < n; ++i) {
                far::seed(all.standard, static_cast<uint32_t>(i));
                benchmark::DoNotOptimize(far::draw(all.standard));
            }
        },
        0.7);
#ifdef PSP_PEER_GLIB
    row.peer(
        "GRand",
        [&](size_t n) {
            for (size_t i = 0; i < n; ++i) {
                g_rand_set_seed(all.glib, static_cast<uint32_t>(i));
                benchmark::DoNotOptimize(g_rand_int(all.glib));
            }
        },
        0.7);
#endif
    row.run();
}

const bench::Registered word_row("random", "32 bits", "ns/draw", word);
const bench::Registered real_row("random", "double", "ns/draw", real);
const bench::Registered reseed_row("random", "new seed and a draw", "ns/seed", reseed);

} // namespace
