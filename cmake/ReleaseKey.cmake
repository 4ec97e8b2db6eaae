# The Ed25519 public key that release archives must be signed for, compiled into the program.
#
# A release build is given the project's key as the base64 of its 32 raw bytes:
#   -DVANTREL_RELEASE_PUBLIC_KEY=<base64>
# Left empty, a key pair of this build's own is made once in <build>/release-key/ (private.pem and
# public.pem), so that tests and local packaging can sign archives this build accepts. Either way
# <build>/release-key/public.pem holds the key the build trusts, for scripts/install to check with.
set(VANTREL_RELEASE_PUBLIC_KEY "" CACHE STRING
  "Base64 of the raw Ed25519 public key release archives are signed with; empty: make a key pair in the build folder")

set(VANTREL_RELEASE_KEY_DIR "${CMAKE_BINARY_DIR}/release-key")
file(MAKE_DIRECTORY "${VANTREL_RELEASE_KEY_DIR}")
# The DER prefix of an Ed25519 SubjectPublicKeyInfo is 12 bytes, a whole number of base64 groups,
# so a PEM body is this prefix's base64 followed by the raw key's.
set(ed25519_spki_prefix "MCowBQYDK2VwAyEA")

set(release_key "${VANTREL_RELEASE_PUBLIC_KEY}")
if(release_key STREQUAL "")
  find_program(OPENSSL_PROGRAM openssl REQUIRED)
  set(private_pem "${VANTREL_RELEASE_KEY_DIR}/private.pem")
  if(NOT EXISTS "${private_pem}")
    execute_process(COMMAND ${OPENSSL_PROGRAM} genpkey -algorithm ed25519 -out "${private_pem}"
      RESULT_VARIABLE result ERROR_VARIABLE error)
    if(NOT result EQUAL 0)
      message(FATAL_ERROR "Cannot make a release key pair: ${error}")
    endif()
  endif()
  execute_process(COMMAND ${OPENSSL_PROGRAM} pkey -in "${private_pem}" -pubout
    OUTPUT_VARIABLE public_pem RESULT_VARIABLE result ERROR_VARIABLE error)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "Cannot read the release key pair ${private_pem}: ${error}")
  endif()
  string(REGEX REPLACE "-----[A-Z ]+-----|\n" "" public_body "${public_pem}")
  string(REPLACE "${ed25519_spki_prefix}" "" release_key "${public_body}")
endif()

string(LENGTH "${release_key}" key_length)
if(NOT key_length EQUAL 44 OR NOT release_key MATCHES "^[A-Za-z0-9+/]+=$")
  message(FATAL_ERROR "VANTREL_RELEASE_PUBLIC_KEY must be the base64 of 32 raw bytes (44 characters)")
endif()
set(VANTREL_RELEASE_KEY "${release_key}")
file(WRITE "${VANTREL_RELEASE_KEY_DIR}/public.pem"
  "-----BEGIN PUBLIC KEY-----\n${ed25519_spki_prefix}${release_key}\n-----END PUBLIC KEY-----\n")
