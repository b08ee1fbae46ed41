#!/usr/bin/python3
"""Decodes App Store receipts with asn1crypto, the peer of zbiap's receipt reader.

Usage: bench/peers/asn1crypto_receipt.py RECEIPT.der...
Reads the same fields as zbiap's reader (dates stay text) and prints, per file, the number of
purchases and the best time of a few decodes. Make the files with
ZBIAP_BENCH_WRITE_RECEIPTS=DIR build/default/bench/zbiap_bench --benchmark_filter=none
"""
import sys
import time

from asn1crypto import cms, core


class Attribute(core.Sequence):
    _fields = [('type', core.Integer), ('version', core.Integer), ('value', core.OctetString)]


class Attributes(core.SetOf):
    _child_spec = Attribute


TEXT = {2: 'bundle_id', 3: 'app_version', 12: 'creation_date', 19: 'original_app_version',
        21: 'expiration_date'}
PURCHASE_TEXT = {1702: 'product_id', 1703: 'transaction_id', 1704: 'purchase_date',
                 1705: 'original_transaction_id', 1706: 'original_purchase_date',
                 1708: 'expires_date', 1712: 'cancellation_date'}
PURCHASE_INTEGER = {1701: 'quantity', 1711: 'web_order_line_item_id'}


def text(octets):
    return core.Asn1Value.load(octets).native


def decode(der):
    content = cms.ContentInfo.load(der)['content']['encap_content_info']['content'].native
    receipt = {'purchases': []}
    for attribute in Attributes.load(content):
        kind = attribute['type'].native
        value = attribute['value'].native
        if kind in TEXT:
            receipt[TEXT[kind]] = text(value)
        elif kind == 17:
            purchase = {}
            for field in Attributes.load(value):
                inner = field['type'].native
                if inner in PURCHASE_TEXT:
                    purchase[PURCHASE_TEXT[inner]] = text(field['value'].native)
                elif inner in PURCHASE_INTEGER:
                    purchase[PURCHASE_INTEGER[inner]] = core.Integer.load(field['value'].native).native
            receipt['purchases'].append(purchase)
    return receipt


def main(paths):
    if not paths:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    for path in paths:
        with open(path, 'rb') as f:
            der = f.read()
        best = None
        rounds = 1 if len(der) > 1_000_000 else 5
        for _ in range(rounds):
            start = time.perf_counter()
            receipt = decode(der)
            elapsed = time.perf_counter() - start
            best = elapsed if best is None else min(best, elapsed)
        print(f'{path}: {len(receipt["purchases"])} purchases, {len(der)} bytes, '
              f'{best * 1000:.1f} ms')
    return 0


if __name__ == '__main__':
    sys.exit(main(sys.argv[1:]))
