#!/bin/sh
# Makes a certificate authority and the server certificates of the TLS tests in the folder $1.
set -eu
cd "$1"
new_key="-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes"

openssl req -x509 $new_key -keyout ca.key -out ca.pem -days 30 -subj "/CN=Test CA"
openssl req -x509 $new_key -keyout self_signed.key -out self_signed.pem -days 30 \
    -subj "/CN=localhost" -addext "subjectAltName=DNS:localhost,IP:127.0.0.1"

# issue <file> <days> <subject alternative name>
issue() {
    openssl req $new_key -keyout "$1.key" -out "$1.csr" -subj "/CN=localhost"
    printf 'subjectAltName=%s\n' "$3" > "$1.ext"
    openssl x509 -req -in "$1.csr" -CA ca.pem -CAkey ca.key -CAcreateserial -days "$2" \
        -extfile "$1.ext" -out "$1.pem"
}
issue name 30 DNS:localhost
issue address 30 IP:127.0.0.1
issue expired 0 DNS:localhost
issue other_name 30 DNS:other.example
