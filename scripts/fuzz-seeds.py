#!/usr/bin/env python3
"""Seed corpora for the libFuzzer targets in fuzz/, one folder per target under OUT.

    python3 scripts/fuzz-seeds.py OUT

Real keys and certificates come from OpenSSL (RSA 1024/1536/2048/3072/4096, EC P-256/384/521)
and are converted to the blobs callers hand to the providers: CryptoAPI PUBLICKEYBLOB and
PRIVATEKEYBLOB as OpenSSL writes them, SIMPLEBLOB (a session key encrypted by OpenSSL),
PLAINTEXTKEYBLOB, SYMMETRICWRAPKEYBLOB (RFC 3394 by OpenSSL), the CNG RSA, ECC and key data
blobs, property values, certificates and SubjectPublicKeyInfo, and state files in the
software token's format. Beside each well-formed input go the malformed variants that each
refusal of the readers needs: cut short, a wrong tag or magic, a length beyond the input, a
field missing or of the wrong type. Needs python3 and the openssl command.
"""
import copy
import json
import os
import struct
import subprocess
import sys
import tempfile

RSA_SIZES = (1024, 1536, 2048, 3072, 4096)
CURVES = (("P-256", 0x31534345, 32), ("P-384", 0x33534345, 48), ("P-521", 0x35534345, 66))
CALG_RSA_KEYX, CALG_RSA_SIGN = 0xA400, 0x2400
CALG_3DES, CALG_AES_128, CALG_AES_192, CALG_AES_256 = 0x6603, 0x660E, 0x660F, 0x6610


def openssl(*args, data=None):
    return subprocess.run(("openssl",) + args, input=data, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                          check=True).stdout


def dword(value):
    return struct.pack("<I", value & 0xFFFFFFFF)


def blob_header(blob_type, alg_id, version=2):
    return bytes([blob_type, version, 0, 0]) + dword(alg_id)


def wide(text, terminated=True):
    return text.encode("utf-16-le") + (b"\0\0" if terminated else b"")


# --- DER: a tree that can be changed and written again with lengths that fit ---

class Node:
    """One element: tag and content, or children when constructed (a BIT STRING that holds DER
    keeps its unused-bits byte as prefix and its DER as children). raw, when set, replaces the
    whole element by those bytes."""

    def __init__(self, tag=0, content=b"", children=None, prefix=b"", raw=None):
        self.tag, self.content, self.children, self.prefix, self.raw = tag, content, children, prefix, raw

    def encode(self):
        if self.raw is not None:
            return self.raw
        if self.children is None:
            return der_wrap(self.tag, self.content)
        return der_wrap(self.tag, self.prefix + b"".join(child.encode() for child in self.children))


def der_wrap(tag, content):
    n = len(content)
    if n < 128:
        length = bytes([n])
    else:
        digits = n.to_bytes((n.bit_length() + 7) // 8, "big")
        length = bytes([0x80 | len(digits)]) + digits
    return bytes([tag]) + length + content


def der_parse(data):
    """The elements of data, or None when it is not whole DER."""
    nodes, at = [], 0
    while at < len(data):
        if len(data) - at < 2:
            return None
        tag, length, at = data[at], data[at + 1], at + 2
        if length & 0x80:
            count = length & 0x7F
            if count == 0 or count > 4 or len(data) - at < count:
                return None
            length, at = int.from_bytes(data[at:at + count], "big"), at + count
        if len(data) - at < length:
            return None
        content, at = data[at:at + length], at + length
        children = der_parse(content) if tag & 0x20 else None
        if tag == 0x03 and content[:1] == b"\0" and content[1:2] == b"\x30":
            inner = der_parse(content[1:])
            if inner is not None:
                nodes.append(Node(tag, content, inner, prefix=b"\0"))
                continue
        nodes.append(Node(tag, content, children) if children is not None else Node(tag, content))
    return nodes


def der_paths(nodes, path=(), depth=6):
    for i, node in enumerate(nodes):
        yield path + (i,)
        if node.children is not None and len(path) < depth:
            yield from der_paths(node.children, path + (i,), depth)


def der_variants(der):
    """der with each element in turn left out, the last one kept, given another tag, emptied,
    or replaced by a lone tag byte or a cut length; every enclosing length is written to fit, so that each
    check of the reader is reached at each depth."""
    tree = der_parse(der)
    variants = []
    for path in der_paths(tree):
        def change(edit):
            copy_ = copy.deepcopy(tree)
            nodes = copy_
            for step in path[:-1]:
                nodes = nodes[step].children
            edit(nodes, path[-1])
            variants.append(b"".join(node.encode() for node in copy_))

        def retag(nodes, i):
            nodes[i].tag = 0x04 if nodes[i].tag != 0x04 else 0x05

        def empty(nodes, i):
            nodes[i].content, nodes[i].prefix = b"", b""
            if nodes[i].children is not None:
                nodes[i].children = []

        change(lambda nodes, i: nodes.pop(i))
        change(lambda nodes, i: nodes.__delitem__(slice(i + 1, None)))
        change(retag)
        change(empty)
        change(lambda nodes, i: nodes.__setitem__(i, Node(raw=bytes([nodes[i].tag]))))
        change(lambda nodes, i: nodes.__setitem__(i, Node(raw=bytes([nodes[i].tag, 0x82, 0x01]))))
    variants.append(der[:1] + bytes([0x80]) + der[2:])  # indefinite length
    variants.append(der[:1] + bytes([0x85, 1, 0, 0, 0, 0]) + der[2:])  # five length bytes
    return variants


def without_version(cert):
    """The same certificate as version 1: the explicit [0] version left out (unsigned again,
    which the readers do not check)."""
    tree = der_parse(cert)
    tbs = tree[0].children[0]
    if tbs.children[0].tag == 0xA0:
        tbs.children.pop(0)
    return tree[0].encode()


def with_subject_attributes(cert, attributes):
    """The certificate with more attributes (type OID bytes, value) in its subject."""
    tree = der_parse(cert)
    fields = tree[0].children[0].children
    subject = fields[5] if fields[0].tag == 0xA0 else fields[4]
    for oid, value in attributes:
        attribute = Node(0x30, children=[Node(0x06, oid), Node(0x0C, value)])
        subject.children.append(Node(0x31, children=[attribute]))
    return tree[0].encode()


# --- Keys and certificates from OpenSSL ---

class Material:
    def __init__(self, work):
        self.work = work
        self.rsa = {}        # bits -> (key file, modulus bytes)
        self.ec = {}         # curve -> (key file, SubjectPublicKeyInfo)
        self.certificates = []
        self.spkis = []

    def path(self, name):
        return os.path.join(self.work, name)

    def make(self):
        subject = "/C=DE/ST=Berlin/L=Berlin/O=Orvane Test/OU=Fuzzing/CN="
        ca_key = self.path("ca.key")
        openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out", ca_key)
        openssl("req", "-x509", "-new", "-key", ca_key, "-subj", subject + "Fuzz CA", "-days", "30", "-out",
                self.path("ca.pem"))
        for bits in RSA_SIZES:
            key = self.path("rsa%d.key" % bits)
            openssl("genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:%d" % bits, "-out", key)
            text = openssl("rsa", "-in", key, "-noout", "-modulus").decode()
            self.rsa[bits] = (key, bytes.fromhex(text.strip().split("=", 1)[1]))
            self.spkis.append(openssl("pkey", "-in", key, "-pubout", "-outform", "DER"))
        for curve, _, _ in CURVES:
            key = self.path(curve + ".key")
            openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:" + curve, "-out", key)
            spki = openssl("pkey", "-in", key, "-pubout", "-outform", "DER")
            self.ec[curve] = (key, spki)
            self.spkis.append(spki)
        # Self-signed certificates, and ones issued by the CA (issuer and subject differ).
        for name, key in [("rsa%d" % b, self.rsa[b][0]) for b in (1024, 2048, 4096)] + \
                         [(c, self.ec[c][0]) for c, _, _ in CURVES]:
            self.certificates.append(openssl("req", "-x509", "-new", "-key", key, "-subj", subject + name,
                                             "-days", "30", "-outform", "DER"))
            csr = self.path(name + ".csr")
            openssl("req", "-new", "-key", key, "-subj", subject + name + " issued", "-out", csr)
            self.certificates.append(openssl("x509", "-req", "-in", csr, "-CA", self.path("ca.pem"), "-CAkey", ca_key,
                                             "-set_serial", "0x00FF0102", "-days", "30", "-outform", "DER"))
        self.certificates.append(without_version(self.certificates[0]))
        # Subject attributes the readers have no short name for: emailAddress, and an OID
        # whose first arcs need two bytes (2.999).
        self.certificates.append(with_subject_attributes(self.certificates[1], [
            (bytes.fromhex("2A864886F70D010901"), b"fuzz@orvane.test"), (bytes.fromhex("883703"), b"2.999.3")]))

    def rsa_encrypt(self, bits, plain):
        key, _ = self.rsa[bits]
        return openssl("pkeyutl", "-encrypt", "-inkey", key, data=plain)

    def wrap(self, kek, key):
        cipher = "-id-aes%d-wrap" % (len(kek) * 8)
        return openssl("enc", cipher, "-K", kek.hex(), "-iv", "A6A6A6A6A6A6A6A6", data=key)


# --- Corpora ---

def key_blobs(m):
    seeds = {}
    for bits in RSA_SIZES:
        key, modulus = m.rsa[bits]
        public = openssl("rsa", "-in", key, "-pubout", "-outform", "MSBLOB")
        seeds["publickeyblob-%d" % bits] = public
        seeds["privatekeyblob-%d" % bits] = openssl("rsa", "-in", key, "-outform", "MSBLOB")
        seeds["publickeyblob-sign-%d" % bits] = blob_header(6, CALG_RSA_SIGN) + public[8:]
        seeds["publickeyblob-exponent3-%d" % bits] = public[:16] + dword(3) + public[20:]
        seeds["publickeyblob-short-%d" % bits] = public[:-1]
    public = seeds["publickeyblob-2048"]
    seeds["publickeyblob-rsa2-magic"] = public[:8] + b"RSA2" + public[12:]
    seeds["publickeyblob-header-only"] = public[:20]
    seeds["publickeyblob-19-bytes"] = public[:19]
    seeds["publickeyblob-odd-bits"] = public[:12] + dword(2047) + public[16:]
    session = bytes(range(32))
    for alg, length in ((CALG_AES_128, 16), (CALG_AES_256, 32), (CALG_3DES, 24), (CALG_AES_192, 24)):
        encrypted = m.rsa_encrypt(2048, session[:length])[::-1]
        seeds["simpleblob-%x" % alg] = blob_header(1, alg) + dword(CALG_RSA_KEYX) + encrypted
        seeds["plaintextkeyblob-%x" % alg] = blob_header(8, alg) + dword(length) + session[:length]
    kek = bytes(range(16, 48))
    for alg, length in ((CALG_AES_128, 16), (CALG_AES_256, 32)):
        seeds["symmetricwrapkeyblob-%x" % alg] = blob_header(11, alg) + m.wrap(kek, session[:length]) + dword(0)
    for blob_type in range(0, 13):
        seeds["type-%d" % blob_type] = blob_header(blob_type, CALG_AES_128) + dword(16) + session[:16]
    seeds["header-12-bytes"] = blob_header(8, CALG_AES_128) + dword(16)
    seeds["header-7-bytes"] = blob_header(8, CALG_AES_128)[:7]
    return seeds


def rsa_public_blob(modulus, exponent=b"\x01\x00\x01", bits=None, magic=0x31415352, primes=(0, 0)):
    bits = len(modulus) * 8 if bits is None else bits
    return dword(magic) + dword(bits) + dword(len(exponent)) + dword(len(modulus)) + dword(primes[0]) + \
        dword(primes[1]) + exponent + modulus


def cng_blobs(m):
    seeds = {}
    for bits in RSA_SIZES:
        modulus = m.rsa[bits][1]
        seeds["rsapublicblob-%d" % bits] = rsa_public_blob(modulus)
        seeds["rsapublicblob-exponent4-%d" % bits] = rsa_public_blob(modulus, b"\x00\x01\x00\x01")
    modulus = m.rsa[2048][1]
    half = bytes(128)
    seeds["rsaprivateblob-2048"] = rsa_public_blob(modulus, magic=0x32415352, primes=(128, 128)) + half + half
    seeds["rsapublicblob-bits-disagree"] = rsa_public_blob(modulus, bits=1024)
    seeds["rsapublicblob-modulus-beyond"] = rsa_public_blob(modulus)[:-1]
    seeds["rsapublicblob-modulus-513"] = rsa_public_blob(bytes([0xC5]) * 513, bits=4096)
    seeds["rsapublicblob-huge-lengths"] = dword(0x31415352) + dword(2048) + dword(0xFFFFFFFF) + dword(0xFFFFFFFF) + \
        dword(0) + dword(0) + b"\x01"
    seeds["rsapublicblob-23-bytes"] = rsa_public_blob(modulus)[:23]
    for curve, magic, size in CURVES:
        point = m.ec[curve][1][-(2 * size + 1):]
        seeds["eccpublicblob-" + curve] = dword(magic) + dword(size) + point[1:]
    for length in (16, 24, 32, 20, 0):
        seeds["keydatablob-%d" % length] = dword(0x4D42444B) + dword(1) + dword(length) + bytes(range(length))
    seeds["keydatablob-beyond"] = dword(0x4D42444B) + dword(1) + dword(32) + bytes(16)
    seeds["keydatablob-huge"] = dword(0x4D42444B) + dword(1) + dword(0xFFFFFFF8) + bytes(16)
    seeds["keydatablob-11-bytes"] = (dword(0x4D42444B) + dword(1) + dword(16))[:11]
    for flags in (0x2, 0x4, 0x8, 0xA, 0x40):
        seeds["flags-%x" % flags] = dword(flags)
    return seeds


def property_values(m):
    seeds = {}
    for name in ("ChainingModeCBC", "ChainingModeECB", "ChainingModeGCM", "ChainingModeCB", "ChainingModeCBCX"):
        seeds["chaining-" + name] = wide(name)
        seeds["chaining-unterminated-" + name] = wide(name, terminated=False)
    seeds["chaining-odd-byte"] = wide("ChainingModeECB", terminated=False) + b"\x00"
    seeds["pin-narrow"] = b"1234\0"
    seeds["pin-wide"] = wide("1234")
    seeds["pin-unterminated"] = b"12345678"
    seeds["hwnd"] = struct.pack("<Q", 0x00000000000A01F4)
    seeds["hwnd-short"] = struct.pack("<I", 0x000A01F4)
    for usage in (0, 1, 2, 3, 0xFFFFFF):
        seeds["key-usage-%x" % usage] = dword(usage)
    for length in (1024, 2048, 16, 24, 32):
        seeds["length-%d" % length] = dword(length)
    seeds["iv-8"] = bytes(range(8))
    seeds["iv-16"] = bytes(range(16))
    seeds["three-bytes"] = b"\x01\x02\x03"
    return seeds


def certificates(m):
    seeds = {}
    for i, cert in enumerate(m.certificates):
        seeds["certificate-%d" % i] = cert
    for i, spki in enumerate(m.spkis):
        seeds["spki-%d" % i] = spki
    # Malformed variants of one RSA and one EC certificate and key (every element reached).
    for name, der in (("rsa-cert", m.certificates[2]), ("ec-cert", m.certificates[6]),
                      ("rsa-spki", m.spkis[0]), ("ec-spki", m.spkis[-1]), ("v1-cert", m.certificates[-2])):
        for i, variant in enumerate(der_variants(der)):
            seeds["%s-variant-%d" % (name, i)] = variant
    # SubjectPublicKeyInfo shapes that the writers never make.
    rsa_oid = der_wrap(0x06, bytes.fromhex("2A864886F70D010101"))
    ec_oid = der_wrap(0x06, bytes.fromhex("2A8648CE3D0201"))
    p256 = der_wrap(0x06, bytes.fromhex("2A8648CE3D030107"))
    point = m.ec["P-256"][1][-65:]

    def spki(algorithm, key):
        return der_wrap(0x30, der_wrap(0x30, algorithm) + der_wrap(0x03, key))

    rsa_key = der_wrap(0x30, der_wrap(0x02, b"\x00") + der_wrap(0x02, b"\x01\x00\x01"))
    seeds["spki-rsa-zero-modulus"] = spki(rsa_oid + der_wrap(0x05, b""), b"\x00" + rsa_key)
    seeds["spki-rsa-empty-modulus"] = spki(rsa_oid, b"\x00" + der_wrap(0x30, der_wrap(0x02, b"") + der_wrap(0x02, b"")))
    seeds["spki-unused-bits"] = spki(rsa_oid, b"\x01" + rsa_key)
    seeds["spki-ec-compressed"] = spki(ec_oid + p256, b"\x00\x02" + point[1:33])
    seeds["spki-ec-unknown-curve"] = spki(ec_oid + der_wrap(0x06, bytes.fromhex("2B81040021")), b"\x00" + point)
    seeds["spki-ec-no-curve"] = spki(ec_oid, b"\x00" + point)
    seeds["spki-ec-empty-point"] = spki(ec_oid + p256, b"\x00")
    seeds["spki-dsa"] = spki(der_wrap(0x06, bytes.fromhex("2A8648CE380401")), b"\x00" + rsa_key)
    return seeds


def store_document(m):
    """A state file as softtoken/StoreFormat writes it (same fields, same order). Secrets are
    only in their protected form: the PIN's PBKDF2 hash and DPAPI blobs (opaque bytes here)."""
    rsa_modulus = m.rsa[2048][1]
    ec_spki = m.ec["P-256"][1]
    key_id = bytes(range(0xA0, 0xB0))
    blob = "01000000D08C9DDF0115D1118C7A00C04FC297EB"  # how every DPAPI blob begins

    def key_pair(index, key_type, public, label):
        return {"index": index, "keyId": bytes([index] * 16).hex().upper(), "label": label, "usage": 3,
                "type": key_type, "flag": 0, "certLinkId": bytes([index] * 16).hex().upper(),
                "publicKey": public.hex().upper(), "protectedPrivateKey": blob + "%02X" % index * 40}

    def pin_hash(seed):
        return {"salt": bytes([seed] * 16).hex().upper(), "iterations": 10000, "hash": bytes([seed] * 32).hex().upper()}

    return {
        "format": 2,
        "generation": 7,
        "tokens": [
            {"serial": "SEED-0001", "label": "Seed token", "pinHash": pin_hash(1), "maxRetries": 5, "retriesLeft": 4,
             "loginState": 1, "ssoState": 1, "plugged": True, "nextIndex": 6,
             "keyPairs": [key_pair(1, 2, rsa_modulus, "RSA key"),
                          key_pair(2, 5, ec_spki, {"hex": "C4E4D6"})],
             "certificates": [{"index": 3, "der": m.certificates[2].hex().upper(),
                               "certLinkId": bytes([1] * 16).hex().upper(), "label": "RSA key"}],
             "secretKeys": [{"index": 4, "keyId": key_id.hex().upper(), "reference": key_id.hex().upper(),
                             "label": "KEK", "type": 10, "flag": True, "protectedValue": blob + "04" * 40},
                            {"index": 5, "keyId": "", "reference": "", "label": "", "type": 11, "flag": False,
                             "protectedValue": ""}]},
            {"serial": {"hex": "FF00"}, "label": "", "pinHash": pin_hash(0), "maxRetries": 10, "retriesLeft": 0,
             "loginState": 0, "ssoState": 0, "plugged": False, "nextIndex": 1,
             "keyPairs": [], "certificates": [], "secretKeys": []},
        ],
        "faults": {"orvane_signHash": {"remaining": 1, "code": 49}, "orvane_getKeyPairList": {"remaining": 0,
                                                                                              "code": 5}},
    }


def old_store_document(document):
    """The same state in the format from before secrets were protected: no "format", the PIN
    and the key bytes in clear. The reader still takes it, once, to convert it."""
    old = copy.deepcopy(document)
    del old["format"]
    for i, token in enumerate(old["tokens"]):
        # The PIN where the writer put it, after the label.
        fields = [(name, value) for name, value in token.items() if name != "pinHash"]
        fields.insert(2, ("pin", "1234" if i == 0 else ""))
        token = old["tokens"][i] = dict(fields)
        for key in token["keyPairs"]:
            del key["protectedPrivateKey"]
            key["privateKey"] = "28372D6B65792D6461746129"
        for secret in token["secretKeys"]:
            del secret["protectedValue"]
            secret["value"] = bytes(range(32)).hex().upper()
    return old


def field_paths(value, path=()):
    """Every path to a value inside the document (dict keys and list positions)."""
    yield path
    if isinstance(value, dict):
        for key, inner in value.items():
            yield from field_paths(inner, path + (key,))
    elif isinstance(value, list):
        for i, inner in enumerate(value):
            yield from field_paths(inner, path + (i,))


def changed(document, path, change):
    copy_ = copy.deepcopy(document)
    parent = copy_
    for step in path[:-1]:
        parent = parent[step]
    change(parent, path[-1])
    return copy_


def store_format(m):
    document = store_document(m)
    old = old_store_document(document)
    seeds = {"state": json.dumps(document, indent=1).encode(),
             "state-compact": json.dumps(document, separators=(",", ":")).encode(),
             "old-format-state": json.dumps(old, indent=1).encode(),
             "newer-format": json.dumps(changed(document, ("format",), lambda p, k: p.__setitem__(k, 3))).encode(),
             "empty-state": b'{"generation": 0, "tokens": [], "faults": {}}',
             "not-json": b"{ not json", "truncated": json.dumps(document).encode()[:200],
             "array": b"[]", "null": b"null", "number": b"1e400"}
    wrong = {str: 12, int: "12", bool: 1, list: {}, dict: []}
    for i, path in enumerate([p for p in field_paths(document) if p] +
                             [("old",) + p for p in field_paths(old["tokens"][0]) if p]):
        source = document
        if path[0] == "old":
            source, path = old, ("tokens", 0) + path[1:]
        def drop(parent, key):
            if isinstance(parent, dict):
                del parent[key]
            else:
                parent.pop(key)

        def mistype(parent, key):
            value = parent[key]
            parent[key] = wrong.get(type(value), "x")

        seeds["missing-%d" % i] = json.dumps(changed(source, path, drop)).encode()
        seeds["wrong-type-%d" % i] = json.dumps(changed(source, path, mistype)).encode()
    # Numbers that do not fit the fields, hex that is not hex, text objects without their hex.
    token = ("tokens", 0)
    for name, value in (("int-too-big", 2 ** 31), ("int-too-small", -2 ** 31 - 1), ("fraction", 1.5),
                        ("huge-float", 1e300), ("negative", -1)):
        for field in (token + ("maxRetries",), token + ("keyPairs", 0, "type"), ("generation",),
                      ("faults", "orvane_signHash", "code")):
            seeds["%s-%s" % (name, "-".join(map(str, field)))] = json.dumps(
                changed(document, field, lambda p, k: p.__setitem__(k, value))).encode()
    seeds["generation-2-64"] = json.dumps(changed(document, ("generation",),
                                                  lambda p, k: p.__setitem__(k, 2 ** 64))).encode()
    for name, value in (("odd-hex", "ABC"), ("non-hex", "ZZ"), ("lower-hex", "0a1b2c3d4e5f"), ("below-0", "/0"),
                        ("between-9-and-A", "0:"), ("above-f", "g0"), ("above-F", "0G"), ("hex-object", {"hex": "ZZ"}),
                        ("text-object-without-hex", {"text": "x"}), ("text-number", 5)):
        for field in (token + ("keyPairs", 0, "keyId"), token + ("label",), token + ("keyPairs", 1, "label")):
            seeds["%s-%s" % (name, "-".join(map(str, field)))] = json.dumps(
                changed(document, field, lambda p, k: p.__setitem__(k, value))).encode()
    # Labels in UTF-8 (kept as text) and byte strings that only look like it (kept as hex).
    texts = {"utf8-2": "Schl\u00fcssel", "utf8-3": "\u9375", "utf8-4": "\U0001F511", "utf8-e0": "\u0800",
             "utf8-ed": "\ud7ff", "utf8-f4": "\U0010FFFF"}
    for name, value in texts.items():
        seeds["label-" + name] = json.dumps(changed(document, token + ("label",), lambda p, k: p.__setitem__(k, value)),
                                            ensure_ascii=False).encode()
    for name, value in (("overlong-c0", "C080"), ("overlong-e0", "E08080"), ("surrogate", "EDA080"),
                        ("overlong-f0", "F0808080"), ("above-10ffff", "F4908080"), ("f5", "F5808080"),
                        ("cut-2", "C3"), ("cut-3", "E98D"), ("cut-4", "F09F94"), ("second-byte", "E941B5"),
                        ("third-byte", "E98D41"), ("third-byte-high", "E98DC0"),
                        ("continuation", "80")):
        seeds["label-hex-" + name] = json.dumps(changed(document, token + ("label",),
                                                        lambda p, k: p.__setitem__(k, {"hex": value}))).encode()
    seeds["deep-nesting"] = b"[" * 5000 + b"]" * 5000
    return seeds


def dump(out, target, seeds):
    folder = os.path.join(out, target)
    os.makedirs(folder, exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(folder, name), "wb") as f:
            f.write(data)
    return len(seeds)


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    out = sys.argv[1]
    with tempfile.TemporaryDirectory() as work:
        m = Material(work)
        m.make()
        for target, make in (("key_blobs", key_blobs), ("cng_blobs", cng_blobs),
                             ("property_values", property_values), ("certificate", certificates),
                             ("store_format", store_format)):
            print("%s: %d seeds" % (target, dump(out, target, make(m))))


if __name__ == "__main__":
    main()
