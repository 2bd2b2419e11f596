#include <hmisvc/broadcast.h>
#include <hmisvc/records.h>

#include <benchmark/benchmark.h>

#include <string>

namespace {

// A typical broadcast: an action, four int and four string extras.
Intent typicalIntent()
{
    Intent intent(Intent::ACTION_SHOW_SETTINGS);
    const char *keys[] = {"brightness", "volume", "page", "timeout"};
    for (int i = 0; i < 4; ++i) {
        intent.putExtra(keys[i], 10 * i - 5);
        intent.putExtra(std::string(keys[i]) + ".label", "value of " + std::string(keys[i]));
    }
    return intent;
}

// One network of a scan list.
WifiList typicalNetwork()
{
    WifiList network;
    network.text1 = "Workshop-5G";
    network.text2 = "a4:2b:b0:11:22:33";
    network.text3 = "WPA2-PSK";
    network.value = -61;
    network.text4 = "5180";
    network.kind = WifiList::Kind(2);
    return network;
}

template <class Record>
void encode(benchmark::State &state, Record record)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(record.toString());
    state.counters["bytes"] = static_cast<double>(record.toString().size());
}

template <class Record>
void decode(benchmark::State &state, Record record)
{
    const std::string encoded = record.toString();
    Record decoded;
    for (auto _ : state) {
        decoded.fromString(encoded);
        benchmark::DoNotOptimize(decoded);
    }
}

BENCHMARK_CAPTURE(encode, intent, typicalIntent());
BENCHMARK_CAPTURE(decode, intent, typicalIntent());
BENCHMARK_CAPTURE(encode, wifilist, typicalNetwork());
BENCHMARK_CAPTURE(decode, wifilist, typicalNetwork());

} // namespace
