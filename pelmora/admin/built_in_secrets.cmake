# The built-in service account, its password and the command access code. They are never kept in
# the source tree: an operator sets them as cache variables (the same values for every client and
# service of a fleet), and a build tree where they are unset gets random values at its first
# configure, kept in its cache from then on, so a client and a service built together interoperate
# and no two build trees share a secret. The values reach the library through a generated file in
# the build tree, stored masked so that they do not appear as plain strings in the binary.

set(PELMORA_SERVICE_ACCOUNT "" CACHE STRING "Built-in administration service account (random when empty)")
set(PELMORA_SERVICE_PASSWORD "" CACHE STRING "Password of the built-in service account (random when empty)")
set(PELMORA_ACCESS_CODE "" CACHE STRING "Access code for remote commands (random when empty)")
mark_as_advanced(PELMORA_SERVICE_ACCOUNT PELMORA_SERVICE_PASSWORD PELMORA_ACCESS_CODE)

# Sets `out` to `length` characters drawn from `alphabet` with the system's random source.
function(pelmora_random_text out length alphabet)
  file(READ /dev/urandom raw LIMIT ${length} HEX)
  string(LENGTH "${raw}" raw_length)
  math(EXPR wanted "${length} * 2")
  if(NOT raw_length EQUAL wanted)
    string(RANDOM LENGTH ${length} ALPHABET "${alphabet}" text)
    set(${out} "${text}" PARENT_SCOPE)
    return()
  endif()
  string(LENGTH "${alphabet}" alphabet_length)
  set(text "")
  math(EXPR last "${length} - 1")
  foreach(i RANGE ${last})
    math(EXPR at "${i} * 2")
    string(SUBSTRING "${raw}" ${at} 2 byte)
    math(EXPR index "0x${byte} % ${alphabet_length}")
    string(SUBSTRING "${alphabet}" ${index} 1 char)
    string(APPEND text "${char}")
  endforeach()
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

# Fills an empty cache variable with a random value once; later configures keep it.
function(pelmora_default_secret variable prefix length alphabet)
  if("${${variable}}" STREQUAL "")
    pelmora_random_text(text ${length} "${alphabet}")
    set(${variable} "${prefix}${text}" CACHE STRING "" FORCE)
  endif()
endfunction()

# Sets `out` to a C++ initialiser list of the masked bytes of `text` (byte i XOR (i * 151 + 89)).
function(pelmora_masked_bytes out text)
  string(HEX "${text}" hex)
  string(LENGTH "${hex}" hex_length)
  set(list "")
  if(hex_length GREATER 0)
    math(EXPR last "${hex_length} / 2 - 1")
    foreach(i RANGE ${last})
      math(EXPR at "${i} * 2")
      string(SUBSTRING "${hex}" ${at} 2 byte)
      math(EXPR masked "0x${byte} ^ ((${i} * 151 + 89) & 255)" OUTPUT_FORMAT HEXADECIMAL)
      string(APPEND list "${masked}, ")
    endforeach()
  endif()
  set(${out} "${list}" PARENT_SCOPE)
endfunction()

set(alnum "abcdefghijkmnpqrstuvwxyzABCDEFGHJKLMNPQRSTUVWXYZ23456789")
pelmora_default_secret(PELMORA_SERVICE_ACCOUNT "svc" 9 "${alnum}")
pelmora_default_secret(PELMORA_SERVICE_PASSWORD "" 24 "${alnum}!#%+-.:=?@_~")
pelmora_default_secret(PELMORA_ACCESS_CODE "" 10 "${alnum}")

pelmora_masked_bytes(account_bytes "${PELMORA_SERVICE_ACCOUNT}")
pelmora_masked_bytes(password_bytes "${PELMORA_SERVICE_PASSWORD}")
pelmora_masked_bytes(access_code_bytes "${PELMORA_ACCESS_CODE}")
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/pelmora/admin/built_in_secrets.inc CONTENT
"// Generated at configure time from the PELMORA_SERVICE_ACCOUNT, PELMORA_SERVICE_PASSWORD and
// PELMORA_ACCESS_CODE cache variables; do not edit, do not commit. Bytes are masked.
constexpr unsigned char kMaskedServiceAccount[] = {@account_bytes@0};
constexpr unsigned char kMaskedServicePassword[] = {@password_bytes@0};
constexpr unsigned char kMaskedAccessCode[] = {@access_code_bytes@0};
" @ONLY)

# For the tests only: the expected values as hexadecimal text, to check the unmasking.
string(HEX "${PELMORA_SERVICE_ACCOUNT}" account_hex)
string(HEX "${PELMORA_SERVICE_PASSWORD}" password_hex)
string(HEX "${PELMORA_ACCESS_CODE}" access_code_hex)
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/pelmora/admin/built_in_secrets_expected.inc CONTENT
"// Generated at configure time for the tests; do not edit, do not commit.
constexpr std::string_view kExpectedAccountHex = \"@account_hex@\";
constexpr std::string_view kExpectedPasswordHex = \"@password_hex@\";
constexpr std::string_view kExpectedAccessCodeHex = \"@access_code_hex@\";
" @ONLY)
