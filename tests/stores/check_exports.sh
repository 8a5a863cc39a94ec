#!/bin/sh
# What libdravinhold.so exports, read with nm: the persistence families, the
# database handle, the typed store's instantiations, the message classes,
# the singletons' objects with their guard variables and the trusted signers
# cache's Instance(); and nothing of the common library's
# stand-in, of LevelDB or of POCO, which stay inside the library or come from
# their own shared objects.
#
# Usage: check_exports.sh <libdravinhold.so.X.Y.Z> [nm] [objdump]
set -u

library=$1
nm=${2:-nm}
objdump=${3:-objdump}
[ -n "$nm" ] || nm=nm
[ -n "$objdump" ] || objdump=objdump

failures=0
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

[ -f "$library" ] || { echo "no such file: $library"; exit 1; }

# The real file behind the links, and its soname.
case $(basename "$library") in
  libdravinhold.so.1.0.0) ;;
  *) fail "library file is $(basename "$library"), expected libdravinhold.so.1.0.0" ;;
esac
soname=$("$objdump" -p "$library" | awk '$1 == "SONAME" { print $2 }')
[ "$soname" = "libdravinhold.so.1" ] || fail "soname is '$soname', expected libdravinhold.so.1"

tmp=$(mktemp -d) || exit 1
trap 'rm -rf "$tmp"' EXIT

# Raw and demangled names of the defined dynamic symbols, one a line.
"$nm" -D --defined-only "$library" | awk '{ print $NF }' > "$tmp/raw" || exit 1
"$nm" -D -C --defined-only "$library" | sed -E 's/^[0-9a-fA-F]+ [A-Za-z] //' > "$tmp/names" ||
  exit 1
# The entity each name belongs to: the name without the words that introduce
# a vtable, typeinfo, guard variable and the like.
sed -E 's/^(typeinfo name for |typeinfo for |vtable for |VTT for |construction vtable for |guard variable for |non-virtual thunk to |virtual thunk to )+//' \
  "$tmp/names" > "$tmp/entities"

count=$(wc -l < "$tmp/raw")
echo "defined dynamic symbols: $count"
[ "$count" -gt 0 ] || fail "no defined dynamic symbol"

# --- Nothing of the stand-in, LevelDB or POCO -----------------------------------
forbid() {  # <extended regex on entities> <what>
  if grep -E -- "$1" "$tmp/entities" > "$tmp/hits"; then
    fail "exports $2:"
    head -n 5 "$tmp/hits" | sed 's/^/    /'
  fi
}
forbid '^zerla_common::' "symbols of zerla_common"
forbid '^loggerhl::' "symbols of loggerhl"
forbid '^logger_ndc_' "logger_ndc_* functions"
forbid '(^|[ :])GetDirSizeOnDisk\(' "GetDirSizeOnDisk"
forbid '(^|[ :])zerla_normalize_string\(' "zerla_normalize_string"
forbid '^leveldb::' "symbols of namespace leveldb"
forbid '^Poco::' "symbols of namespace Poco"
# The same in mangled form, where the C-linkage names stand as they are.
if grep -E '^(logger_ndc_|GetDirSizeOnDisk$|zerla_normalize_string$|_ZN12zerla_common|_ZN8loggerhl|_ZN7leveldb|_ZN4Poco|_ZTV7leveldb|_ZTI7leveldb|_ZTS7leveldb|_ZTV4Poco|_ZTI4Poco|_ZTS4Poco)' \
  "$tmp/raw" > "$tmp/hits"; then
  fail "exports mangled names of the stand-in, LevelDB or POCO:"
  head -n 5 "$tmp/hits" | sed 's/^/    /'
fi

# --- What must be there -----------------------------------------------------------
require() {  # <extended regex on names> <least count> <what>
  found=$(grep -c -E -- "$1" "$tmp/names")
  [ "$found" -ge "$2" ] || fail "expected at least $2 export(s) of $3, found $found"
}
require_function() {  # <name in namespace persistence> [overloads]
  require "^persistence::$1\\(" "${2:-1}" "persistence::$1"
}

for family in FVhashStore TrustedSignersStore TrustedSignersCacheStore \
  GeneralSettingsPolicyStore ProcessSettingsPolicyStore; do
  require_function "${family}_Empty"
  require_function "${family}_Count"
  require_function "${family}_Get" 2
  require_function "${family}_AtomicClearAndPut"
  require_function "${family}_ReadInterval" 2
  require_function "${family}_Dump" 2
done
# The bool forms of _Empty exist in two families only.
require_function FVhashStore_Empty 2
require_function TrustedSignersStore_Empty 2
for name in FVhashStore_Put FVhashStore_Check FVhashStore_GetVerdict FVhashStore_Clear \
  TrustedSignersStore_Put TrustedSignersStore_Check TrustedSignersStore_Clear \
  trusted_signers_cache_init trusted_signers_cache_set_trusted_signer \
  trusted_signers_cache_set_trusted_signers trusted_signers_cache_get_trusted_signer \
  trusted_signers_cache_compact trusted_signers_cache_clear \
  general_settings_policy_loaded general_settings_policy_set general_settings_policy_get \
  general_settings_policy_set_bulk general_settings_policy_clear \
  process_settings_policy_loaded process_settings_policy_set process_settings_policy_get \
  process_settings_policy_set_bulk process_settings_policy_for_each \
  process_settings_policy_clear; do
  require_function "$name"
done

# Every singleton's object and its guard variable: callers inline
# Instance(), and their copies must find both in the library.
for singleton in persistence::FVhashStore persistence::TrustedSignersStore \
  persistence::TrustedSignersCacheStore persistence::GeneralSettingsPolicyStore \
  persistence::ProcessSettingsPolicyStore persistence::EnrichmentStoreEx \
  'LoggerSingleton<LibPersistenceLogger>' 'LoggerSingleton<EnrichmentLogger>'; do
  for name in "$singleton::Instance()::instance" \
    "guard variable for $singleton::Instance()::instance"; do
    grep -q -x -F "$name" "$tmp/names" || fail "$name is not exported"
  done
done

# The trusted signers cache's singleton, called by name.
grep -q -x -F 'persistence::TrustedSignersCacheStore::Instance()' "$tmp/names" ||
  fail "persistence::TrustedSignersCacheStore::Instance() is not exported"

# The database handle.
for member in 'DB\(' '~DB\(' 'Open\(' 'Close\(' 'Get\(' 'Put\(' 'Delete\(' 'Verify\(' \
  'Repair\(' 'Destroy\(' 'AtomicClearAndPut\(' 'NullKey' 'MaxCount\('; do
  require "^persistence::DB::$member" 1 "persistence::DB::$member"
done

# The typed store over each plain store's records, and the store classes.
for records in FVhashStore TrustedSignersStore TrustedSignersCacheStore \
  GeneralSettingsPolicyStore ProcessSettingsPolicyStore; do
  instantiation="persistence::KVStore<.*proto::$records::Value, proto::$records::Data>"
  require "^vtable for $instantiation\$" 1 "the vtable of KVStore over $records"
  require "^$instantiation::Get\\(" 2 "KVStore<$records>::Get"
  require "^$instantiation::Put\\(" 2 "KVStore<$records>::Put"
  require "^$instantiation::AtomicClearAndPut\\(" 1 "KVStore<$records>::AtomicClearAndPut"
  require "^vtable for persistence::$records\$" 1 "the vtable of persistence::$records"
done

# The message classes of the plain stores.
for message in FVhashStore::Value FVhashStore::Data FVhashStore::Data_Entry \
  TrustedSignersStore::Value TrustedSignersStore::Data TrustedSignersStore::Data_Entry \
  TrustedSignersCacheStore::Value TrustedSignersCacheStore::Data \
  TrustedSignersCacheStore::Data_Entry \
  GeneralSettingsPolicyStore::Key GeneralSettingsPolicyStore::Value \
  GeneralSettingsPolicyStore::Data GeneralSettingsPolicyStore::Data_Entry \
  ProcessSettingsPolicyStore::Key ProcessSettingsPolicyStore::Value \
  ProcessSettingsPolicyStore::Data ProcessSettingsPolicyStore::Data_Entry; do
  require "^vtable for proto::$message\$" 1 "the vtable of proto::$message"
  require "^typeinfo for proto::$message\$" 1 "the typeinfo of proto::$message"
  require "^proto::$message::$(echo "$message" | sed 's/.*:://')\\(" 1 "constructors of proto::$message"
done
for schema in fvhash_5fstore_2ffvhash_5fstore trusted_5fsigners_5fstore_2ftrusted_5fsigners_5fstore \
  trusted_5fsigners_5fcache_2ftrusted_5fsigners_5fcache \
  general_5fsettings_5fpolicy_5fstore_2fgeneral_5fsettings_5fpolicy_5fstore \
  process_5fsettings_5fpolicy_5fstore_2fprocess_5fsettings_5fpolicy_5fstore; do
  require "^descriptor_table_dravinhold_2f${schema}_2eproto\$" 1 "the descriptor of $schema"
done

if [ "$failures" -ne 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "all export checks passed"
