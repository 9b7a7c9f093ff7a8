#!/usr/bin/python3
# Signs or verifies a message with a test key of its own (ed25519), the
# DKIM record answered from the key directory instead of DNS. Simple
# canonicalisation: one byte changed in the signed headers or the body breaks it.
# Usage: dkim-tool.py sign KEYDIR < message > signed
#        dkim-tool.py verify KEYDIR < message   (prints "verified" or "broken")
import base64
import os
import sys

import dkim
import nacl.signing

mode, keydir = sys.argv[1], sys.argv[2]
seed_path = os.path.join(keydir, "dkim.seed")
if not os.path.exists(seed_path):
    with open(seed_path, "wb") as out:
        out.write(base64.b64encode(bytes(nacl.signing.SigningKey.generate())))
with open(seed_path, "rb") as given:
    seed = given.read()
public = base64.b64encode(bytes(nacl.signing.SigningKey(base64.b64decode(seed)).verify_key))
message = sys.stdin.buffer.read()


def record(name, timeout=5):
    if name == b"test._domainkey.sender.example.":
        return b"v=DKIM1; k=ed25519; p=" + public
    return None


if mode == "sign":
    sys.stdout.buffer.write(dkim.sign(message, b"test", b"sender.example", seed,
                                      signature_algorithm=b"ed25519-sha256",
                                      include_headers=[b"From", b"To", b"Subject", b"Date"],
                                      canonicalize=(b"simple", b"simple")) + message)
else:
    print("verified" if dkim.verify(message, dnsfunc=record) else "broken")
