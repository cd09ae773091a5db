"""Prints requests signed by oauthlib, a JSON list a line: plain paths, names and keys, any text as a value."""

import json
import random
from urllib.parse import quote, urlsplit

from oauthlib.oauth1 import Client
from oauthlib.oauth1.rfc5849 import signature as rules

PLAIN = "azAZ019-._~"
DELIMITERS = "/:?@!$'()*,;"
VALUE = PLAIN + DELIMITERS + ' "<>#&={}|\\^`é漢😀'
SECRET = VALUE + "+%[]\n"
METHODS = {"GET": 0, "POST": 2, "PUT": 3, "DELETE": 4}
random.seed(4)
text = lambda letters, least=0: "".join(random.choices(letters, k=random.randint(least, 12)))

for _ in range(600):
    server = random.choice(["http://h.example", "https://h.example", f"http://h.example:{random.randint(81, 65535)}"])
    items = [text(PLAIN, 1) + "=" + quote(text(VALUE), DELIMITERS) for _ in range(random.randint(0, 5))]
    url = f"{server}/{text(PLAIN)}/{text(PLAIN)}?{'&'.join(items)}"
    method = random.choice(list(METHODS))
    key, nonce, token, secret, callback, verifier = map(text, [PLAIN] * 2 + [SECRET] * 4, [1, 1, 0, 0, 0, 0])
    client = Client(key, key, token, secret, callback, verifier=verifier, nonce=nonce, timestamp="17")
    header = client.sign(url, method)[1]["Authorization"]
    fields = rules.collect_parameters(urlsplit(url).query, headers={"Authorization": header})
    base = rules.signature_base_string(method, rules.base_string_uri(url), rules.normalize_parameters(fields))
    print(json.dumps([url, key, token, secret, callback, verifier, nonce, METHODS[method], base, header]))
