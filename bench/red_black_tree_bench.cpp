// Builds an ordered map of N random keys and looks every key up again:
// the index-linked red-black tree against std::map.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <map>
#include <random>
#include <vector>

#include "Keel/Collections/RedBlackTree.h"

namespace {

using Keel::Collections::RedBlackTree;

template <typename K>
std::vector<K> RandomKeys(int64_t n) {
  std::mt19937 rng(static_cast<uint32_t>(n));
  std::uniform_int_distribution<uint64_t> key_of(0, static_cast<K>(~K{0}));
  std::vector<K> keys(n);
  for (K& key : keys) key = static_cast<K>(key_of(rng));
  return keys;
}

template <typename K>
void BM_TreeInsert(benchmark::State& state) {
  std::vector<K> keys = RandomKeys<K>(state.range(0));
  for (auto _ : state) {
    RedBlackTree<K, uint32_t> tree;
    tree.Create(static_cast<uint32_t>(keys.size()));
    for (K key : keys) tree.Insert(key, 1u);
    benchmark::DoNotOptimize(tree.GetCount());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <typename K>
void BM_MapInsert(benchmark::State& state) {
  std::vector<K> keys = RandomKeys<K>(state.range(0));
  for (auto _ : state) {
    std::map<K, uint32_t> map;
    for (K key : keys) map.emplace(key, 1u);
    benchmark::DoNotOptimize(map.size());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <typename K>
void BM_TreeSearch(benchmark::State& state) {
  std::vector<K> keys = RandomKeys<K>(state.range(0));
  RedBlackTree<K, uint32_t> tree;
  tree.Create(static_cast<uint32_t>(keys.size()));
  for (K key : keys) tree.Insert(key, 1u);
  for (auto _ : state) {
    uint32_t found = 0;
    uint32_t value = 0;
    for (K key : keys) found += tree.Search(key, value);
    benchmark::DoNotOptimize(found);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <typename K>
void BM_MapSearch(benchmark::State& state) {
  std::vector<K> keys = RandomKeys<K>(state.range(0));
  std::map<K, uint32_t> map;
  for (K key : keys) map.emplace(key, 1u);
  for (auto _ : state) {
    uint32_t found = 0;
    for (K key : keys) found += map.find(key) != map.end();
    benchmark::DoNotOptimize(found);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// uint16 keys (the day index's) for the small sizes, uint32 for the large.
BENCHMARK(BM_TreeInsert<uint16_t>)->Arg(64)->Arg(512)->Arg(4096);
BENCHMARK(BM_MapInsert<uint16_t>)->Arg(64)->Arg(512)->Arg(4096);
BENCHMARK(BM_TreeInsert<uint32_t>)->Arg(4096)->Arg(65536);
BENCHMARK(BM_MapInsert<uint32_t>)->Arg(4096)->Arg(65536);
BENCHMARK(BM_TreeSearch<uint16_t>)->Arg(64)->Arg(512)->Arg(4096);
BENCHMARK(BM_MapSearch<uint16_t>)->Arg(64)->Arg(512)->Arg(4096);
BENCHMARK(BM_TreeSearch<uint32_t>)->Arg(4096)->Arg(65536);
BENCHMARK(BM_MapSearch<uint32_t>)->Arg(4096)->Arg(65536);

}  // namespace

BENCHMARK_MAIN();
