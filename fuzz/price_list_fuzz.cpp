// Arbitrary bytes as a downloaded price list, a cached spend file, and a model
// name to resolve: parsers give a table or nothing, never a crash.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "lumora/spend/model_pricing.hpp"
#include "lumora/spend/price_lists.hpp"
#include "lumora/spend/spend_store.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    auto prices = lumora::PriceLists::parseModelPrices(bytes);
    auto catalogue = lumora::PriceLists::parseModelsCatalogue(bytes);
    (void)lumora::SpendStore::decode(bytes);
    std::string_view name = bytes.substr(0, 80);
    (void)lumora::ModelPricing::resolve(name, lumora::ModelPricing::bundledRates());
    if (prices) (void)lumora::ModelPricing::resolve(name, *prices);
    if (catalogue) (void)lumora::ModelPricing::resolve(name, *catalogue);
    return 0;
}
