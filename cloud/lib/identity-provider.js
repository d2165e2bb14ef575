// The identity provider: oidc-provider with one client, the device, which may use the client credentials grant only.

import { generateKeyPair, randomBytes } from 'node:crypto';
import { createServer } from 'node:http';
import { promisify } from 'node:util';

import Provider, { errors } from 'oidc-provider';

import { MemoryStore } from './memory-store.js';
import { listen, LOOPBACK, logRequests } from './server.js';

export async function startIdentityProvider({ device, scopes, tokenLifetime, port, log }) {
  const signingKey = await makeSigningKey();
  const server = createServer();
  const listener = await listen(server, port);
  const issuer = `http://${LOOPBACK}:${listener.port}`;

  const provider = new Provider(issuer, {
    adapter: MemoryStore,
    clients: [deviceClient(device)],
    clientAuthMethods: ['private_key_jwt'],
    enabledJWA: { clientAuthSigningAlgValues: ['RS256'] },
    scopes,
    responseTypes: [],
    ttl: { ClientCredentials: tokenLifetime },
    jwks: { keys: [signingKey] },
    cookies: { keys: [randomBytes(32).toString('hex')] },
    features: {
      clientCredentials: { enabled: true },
      resourceIndicators: readableTokens(`${issuer}/api`, scopes),
      devInteractions: { enabled: false },
      pushedAuthorizationRequests: { enabled: false },
      rpInitiatedLogout: { enabled: false },
      userinfo: { enabled: false },
    },
  });
  // A client never learns why it was refused; people who try things out should.
  provider.on('grant.error', (context, error) => log(`idp refused: ${error.error_detail ?? error.error_description}`));
  provider.on('server_error', (context, error) => console.error(error));
  server.on('request', logRequests('idp', log, provider.callback()));

  return { ...listener, issuer, wellKnownUrl: `${issuer}/.well-known/openid-configuration` };
}

const deviceClient = (device) => ({
  client_id: device.id,
  token_endpoint_auth_method: 'private_key_jwt',
  token_endpoint_auth_signing_alg: 'RS256',
  grant_types: ['client_credentials'],
  redirect_uris: [],
  response_types: [],
  jwks: { keys: [device.publicKey.export({ format: 'jwk' })] },
});

/** Tokens for the one resource are signed JWTs, so that their claims can be looked at; by default they are opaque. */
function readableTokens(api, scopes) {
  return {
    enabled: true,
    defaultResource: () => api,
    getResourceServerInfo(context, resource) {
      if (resource !== api) {
        throw new errors.InvalidTarget();
      }
      // Left to itself the library grants what it knows and silently drops the rest.
      const unknown = [...context.oidc.requestParamScopes].find((scope) => !scopes.includes(scope));
      if (unknown !== undefined) {
        throw new errors.InvalidScope('requested scope is not known', unknown);
      }
      return {
        scope: scopes.join(' '),
        accessTokenFormat: 'jwt',
        jwt: { sign: { alg: 'RS256' } },
      };
    },
  };
}

/** A fresh key a start: tokens of an earlier run are worthless, and nothing has to be kept secret on disk. */
async function makeSigningKey() {
  const { privateKey } = await promisify(generateKeyPair)('rsa', { modulusLength: 2048 });
  return { ...privateKey.export({ format: 'jwk' }), use: 'sig', alg: 'RS256' };
}
