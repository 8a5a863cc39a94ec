// One call of each family through the installed library, as a user's
// program makes them. Prints each result; exits 0 when all are as expected.

#include <cstdio>
#include <string>
#include <vector>

#include "nix/dravinhold/enrichment_store/enrichment_store.h"
#include "nix/dravinhold/fvhash_store/fvhash_store.h"
#include "nix/dravinhold/general_settings_policy_store/general_settings_policy_store.h"
#include "nix/dravinhold/process_settings_policy_store/process_settings_policy_store.h"
#include "nix/dravinhold/trusted_signers_cache/trusted_signers_cache.h"
#include "nix/dravinhold/trusted_signers_store/trusted_signers_store.h"

namespace {

int failures = 0;

void Expect(bool ok, const char* what) {
  std::printf("%-48s %s\n", what, ok ? "ok" : "FAILED");
  if (!ok) ++failures;
}

}  // namespace

int main() {
  using namespace persistence;
  Expect(FVhashStore_Put({{true, "AB12"}}) == 0 && FVhashStore_Check("ab12"),
         "FVhashStore_Put, FVhashStore_Check");
  Expect(TrustedSignersStore_Put({{"Vendor", "C0DE"}}) == 0 && TrustedSignersStore_Check("c0de"),
         "TrustedSignersStore_Put, TrustedSignersStore_Check");
  std::string certhash;
  Expect(trusted_signers_cache_set_trusted_signer("signer", "cert") &&
             trusted_signers_cache_get_trusted_signer("signer", &certhash) && certhash == "cert",
         "trusted_signers_cache set and get");
  std::string policy;
  Expect(general_settings_policy_set(5, "general") == 0 &&
             general_settings_policy_get(5, &policy) == 0 && policy == "general",
         "general_settings_policy set and get");
  Expect(process_settings_policy_set(" Bash ", 7, "process") == 0 &&
             process_settings_policy_get("bash", 7, &policy) == 0 && policy == "process",
         "process_settings_policy set and get");
  proto::EnrichmentStore::Value value;
  value.set_image_path("/usr/bin/true");
  proto::EnrichmentStore::Value read;
  Expect(EnrichmentStore_PutEntry("ab12", value).ok() &&
             EnrichmentStore_GetEntry("ab12", &read).ok() && read.image_path() == "/usr/bin/true",
         "EnrichmentStore_PutEntry, EnrichmentStore_GetEntry");
  return failures == 0 ? 0 : 1;
}
