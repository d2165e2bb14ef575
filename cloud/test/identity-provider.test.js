import assert from 'node:assert/strict';
import { createHmac, createPublicKey, verify, X509Certificate } from 'node:crypto';
import { readFileSync } from 'node:fs';
import { join } from 'node:path';
import { after, before, describe, it } from 'node:test';

import {
  decodeJwt, encodeJwtPart, makeAssertion, makeDevice, makeTemporaryDirectory, requestToken, startCloud, waitUntil,
} from '../testing/harness.js';

const directory = makeTemporaryDirectory();
const now = () => Math.floor(Date.now() / 1000);
let device;
let stranger;
let cloud;

before(async () => {
  device = makeDevice(join(directory.path, 'device'));
  stranger = makeDevice(join(directory.path, 'stranger'));
  cloud = await startCloud('--device', device.directory, '--verbose');
});
after(async () => {
  await cloud?.stop();
  directory.remove();
});

/** Asks for a token and expects a refusal with this status, error code and logged reason. */
async function assertRefused({ status, error, reason }, ...request) {
  const refusals = () => cloud.stderr.split('\n').slice(0, -1).filter((line) => line.startsWith('idp refused: '));
  const earlier = refusals().length;
  const reply = await requestToken(cloud, ...request);
  assert.equal(reply.status, status, JSON.stringify(reply.body));
  assert.equal(reply.body.error, error);
  assert.equal(reply.body.access_token, undefined);
  await waitUntil(() => refusals().length > earlier, 'no reason was logged');
  assert.equal(refusals().at(-1), `idp refused: ${reason}`);
}

describe('a good assertion', () => {
  for (const scope of ['telemetry', 'update', 'update telemetry']) {
    it(`gets a token for the scope "${scope}"`, async () => {
      const { status, body } = await requestToken(cloud, makeAssertion(device, cloud), scope);
      assert.equal(status, 200, JSON.stringify(body));
      assert.equal(body.scope, scope);
      assert.equal(body.token_type, 'Bearer');
      assert.equal(body.expires_in, 3600);
    });
  }

  it('gets a token that can be read and verified', async () => {
    const { body } = await requestToken(cloud, makeAssertion(device, cloud), 'telemetry');
    const { header, payload } = decodeJwt(body.access_token);
    assert.equal(payload.iss, cloud.issuer);
    assert.equal(payload.aud, `${cloud.issuer}/api`);
    assert.equal(payload.client_id, 'device-0001');
    assert.equal(payload.scope, 'telemetry');
    assert.equal(payload.exp - payload.iat, 3600);

    const { keys } = await (await fetch(`${cloud.issuer}/jwks`)).json();
    const key = createPublicKey({ key: keys.find(({ kid }) => kid === header.kid), format: 'jwk' });
    const [signed, signature] = body.access_token.split(/\.(?=[^.]*$)/);
    assert.ok(verify('sha256', Buffer.from(signed), key, Buffer.from(signature, 'base64url')));
  });

  it('gets a token without a scope for the empty scope', async () => {
    const { status, body } = await requestToken(cloud, makeAssertion(device, cloud), '');
    assert.equal(status, 200);
    assert.equal(decodeJwt(body.access_token).payload.scope, undefined);
  });
});

describe('a bad assertion is refused', () => {
  const refused = [
    { name: 'signed with another key', make: () => makeAssertion(stranger, cloud), reason: 'signature verification failed' },
    { name: 'claims changed after signing', make: changedAfterSigning, reason: 'signature verification failed' },
    { name: 'without signature', make: () => resigned('none', () => ''), reason: 'alg mismatch' },
    { name: 'public key used as shared secret', make: () => resigned('HS256', hmacWithPublicKey), reason: 'alg mismatch' },
    { name: 'for another audience', claims: () => ({ aud: 'http://127.0.0.1:1/token' }), reason: 'audience (aud) must equal the endpoint url, issuer identifier or token endpoint url' },
    { name: 'without audience', claims: () => ({ aud: undefined }), reason: 'aud (JWT audience) must be provided in the client_assertion JWT' },
    { name: 'expired', claims: () => ({ exp: now() - 60 }), reason: 'jwt expired' },
    { name: 'without expiry', claims: () => ({ exp: undefined }), reason: 'expiration must be specified in the client_assertion JWT' },
    { name: 'not valid yet', claims: () => ({ nbf: now() + 60 }), reason: 'jwt not active yet' },
    { name: 'without jti', claims: () => ({ jti: undefined }), reason: 'unique jti (JWT ID) must be provided in the client_assertion JWT' },
    { name: 'of an unknown client', claims: () => ({ sub: 'device-0002', iss: 'device-0002' }), reason: 'client not found' },
    { name: 'of another issuer', claims: () => ({ iss: 'device-0002' }), reason: 'iss (JWT issuer) must be the client_id' },
  ];
  for (const { name, claims, make, reason } of refused) {
    it(name, () => {
      const assertion = make ? make() : makeAssertion(device, cloud, claims());
      return assertRefused({ status: 401, error: 'invalid_client', reason }, assertion);
    });
  }

  function changedAfterSigning() {
    const [header, , signature] = makeAssertion(device, cloud).split('.');
    const { payload } = decodeJwt(makeAssertion(device, cloud));
    return [header, encodeJwtPart(payload), signature].join('.');
  }

  function resigned(alg, signer) {
    const [, payload] = makeAssertion(device, cloud).split('.');
    const signed = `${encodeJwtPart({ alg, typ: 'JWT' })}.${payload}`;
    return `${signed}.${signer(signed)}`;
  }

  function hmacWithPublicKey(signed) {
    const { publicKey } = new X509Certificate(readFileSync(join(device.directory, 'device.crt')));
    const secret = publicKey.export({ type: 'spki', format: 'pem' });
    return createHmac('sha256', secret).update(signed).digest('base64url');
  }
});

describe('an assertion counts once', () => {
  const replayed = { status: 401, error: 'invalid_client', reason: 'client assertion tokens must only be used once' };

  it('the same assertion again', async () => {
    const assertion = makeAssertion(device, cloud);
    assert.equal((await requestToken(cloud, assertion)).status, 200);
    await assertRefused(replayed, assertion);
    await assertRefused(replayed, assertion, 'update');
  });

  it('a new assertion with a used jti', async () => {
    assert.equal((await requestToken(cloud, makeAssertion(device, cloud, { jti: 'once' }))).status, 200);
    await assertRefused(replayed, makeAssertion(device, cloud, { jti: 'once', exp: now() + 200 }));
  });

  it('the same assertion many times at once', async () => {
    const assertion = makeAssertion(device, cloud);
    const replies = await Promise.all(Array.from({ length: 20 }, () => requestToken(cloud, assertion)));
    assert.equal(replies.filter(({ status }) => status === 200).length, 1);
  });
});

describe('a bad request is refused', () => {
  const scopeNotKnown = { status: 400, error: 'invalid_scope', reason: 'requested scope is not known' };
  for (const scope of ['camera', 'telemetry camera', 'openid', 'Telemetry']) {
    it(`for the scope "${scope}"`, () => assertRefused(scopeNotKnown, makeAssertion(device, cloud), scope));
  }

  it('for another resource', () => {
    const reason = 'resource indicator is missing, or unknown';
    const resource = 'http://127.0.0.1/other';
    return assertRefused({ status: 400, error: 'invalid_target', reason }, makeAssertion(device, cloud), 'update', { resource });
  });

  it('for another grant', () => {
    const reason = 'unsupported grant_type requested';
    const grant = { grant_type: 'authorization_code', code: 'x' };
    return assertRefused({ status: 400, error: 'unsupported_grant_type', reason }, makeAssertion(device, cloud), 'update', grant);
  });

  it('without an assertion', () => {
    const reason = 'no client authentication mechanism provided';
    return assertRefused({ status: 400, error: 'invalid_request', reason }, '');
  });
});

it('the options choose scopes and token lifetime', async (t) => {
  const other = await startCloud('--device', device.directory, '--scope', 'a', '--scope', 'b:c', '--token-lifetime', '90');
  t.after(() => other.stop());
  const { body } = await requestToken(other, makeAssertion(device, other), 'b:c a');
  assert.equal(body.expires_in, 90);
  const { payload } = decodeJwt(body.access_token);
  assert.equal(payload.exp - payload.iat, 90);
  assert.equal(payload.scope, 'b:c a');
  assert.equal((await requestToken(other, makeAssertion(device, other), 'telemetry')).status, 400);
});
