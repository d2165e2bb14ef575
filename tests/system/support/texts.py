"""The source names of the log, and the log lines of the stages that every run goes through."""

from .log import debug, error, info, verbose, warning

MANAGER = "DiscoverySSOManager"
API = "apiProviders/SsoApiSocketProvider"
DISCOVERY = "Discovery"
CLIENT = "SsoClient"
ACCESS_TOKEN = "AccessToken"
KEYS = "kcProviders/KeyCertificateProvider"
TEMPLATE = "kcProviders/FileTemplateKCProvider"
ORVEX = "kcProviders/OrvexKCProvider"

GENERIC_FAILURE = "std::exception"  # the text of the standard library's own base exception
NO_PROVIDER = error(MANAGER, "Key Certificate Provider does not exist. Terminating")
CONFIGURATION_FAILED = error(MANAGER, "Couldn't create SSO Manager. Config failure. Terminating")
STOPPED = [info(MANAGER, "Received STOP signal"), info(MANAGER, "SSO Discovery Service terminated")]
API_LISTENING = [info(API, "SSO API Socket successfully created"), info(API, "SSO API Socket successfully binded"),
                 info(API, "SSO API Server listening")]
READY = info(MANAGER, "Cloud config successfully retrieved. Creating SsoClient")


def opening(path, environment="", log_path=None):
    """Up to the point where the configuration is read for good."""
    to_stdout = warning(MANAGER, f"No sso.log_file specified in configuration file {path}. Using stdout instead")
    return [*([] if log_path else [to_stdout]), info(MANAGER, f"CLOUD_ENV: {environment}"),
            info(MANAGER, f"Reading configuration from {path}")]


def cloud_settings(url, cache_folder=None):
    storage = ("Cache is not used." if cache_folder is None
               else f"Cached cloud config stored in {cache_folder} directory.")
    return [info(MANAGER, "Configuring cloud settings"), info(MANAGER, f"Cloud URL: {url}. {storage}")]


def provider_created(kind, *between):
    return [info(MANAGER, f"Certificate provider type: {kind}"), *between,
            info(MANAGER, f"Certificate provider type: {kind} successfully created")]


def template_names(key, certificate):
    return info(TEMPLATE, f"Key/Certificate filenames key: {key} certificate {certificate} ")


def apis_started(count):
    each = [info(MANAGER, "SSO Provider type: socket"), info(MANAGER, "Starting SSO API Provider: socket"),
            info(MANAGER, "SSO API provider type: socket successfully created")]
    return [info(MANAGER, "Configuring SSO API Providers"), info(MANAGER, f"Number of SSO API Providers: {count}"),
            *(each * count)]


def configured(service, environment="", *between):
    """Everything that the main thread logs about a good configuration; `between` comes from the provider's making."""
    section = service.section
    cloud = section["cloud_config"]
    return [*opening(service.configuration_path, environment, section.get("log_path")),
            *cloud_settings(cloud["url"], cloud["cache_folder"] if cloud["cache_enabled"] else None),
            *provider_created(section["certificate_provider"]["type"], *between),
            *apis_started(len(section["api_providers"]))]


CONFIGURING = info(MANAGER, "Configuring SSO Manager")
READING_ID = info(KEYS, "SSO Reading client_id from certificate subject.")


def device_known(device_id="device-0001"):
    return info(DISCOVERY, f"Discovery using device id {device_id} from the certificate")


def asking(url):
    return info(DISCOVERY, f"Making discovery request to {url}")


def first_request(url, device_id="device-0001"):
    """From the start of the first initialisation to the discovery request."""
    return [CONFIGURING, READING_ID, device_known(device_id), asking(url)]


def retried(cloud):
    """From the start of a later initialisation to the discovery request: the id is known by then."""
    return [CONFIGURING, device_known(cloud.device.id), asking(cloud.discovery_url)]


def discovery_status(code):
    line = debug(DISCOVERY, f"Discovery request, Curl response code: {code}")
    return [line] if 200 <= code <= 299 else [line, line._replace(level="error")]


FOUND_DATA = debug(DISCOVERY, "Discovery Request, found data tag.")


def decoded(size):
    return debug(DISCOVERY, f"base64 decoded size: {size}")


def decrypting(size):
    """Up to the last block; what becomes of it is the caller's."""
    return [debug(DISCOVERY, f"Decrypting Discovery Request: {size} size"),
            *(verbose(DISCOVERY, f"string offset : {offset}") for offset in range(0, size, 256))]


DECRYPTED = debug(DISCOVERY, "Discovery Request successfully decoded")


def decrypted(size):
    return [decoded(size), *decrypting(size), DECRYPTED]


def well_known_found(url):
    return debug(DISCOVERY, f"SSO well known endpoint found: {url}")


def good_reply(cloud, size=256):
    return [*discovery_status(200), FOUND_DATA, *decrypted(size), well_known_found(cloud.well_known_in_payload)]


def initialised(cloud, *stored):
    """The whole first initialisation when all goes well; `stored` comes from the cache."""
    return [*first_request(cloud.discovery_url, cloud.device.id), *good_reply(cloud), *stored, READY]


def cloud_failed(reason, caching=False):
    ending = "Trying backup file" if caching else "Cloud config caching not enabled"
    return error(DISCOVERY, f"Couldn't retrieve configuration from the cloud: {reason}. {ending}")


def without_cache(reason):
    """The reason of a failed initialisation when there is no cache to fall back on."""
    return f"Couldn't retrieve configuration from the cloud: {reason} Cloud config caching not enabled"


def retrying(reason):
    return error(MANAGER, f"Couldn't initialize the SSO manager: {reason}. Will try again in 30 seconds")


RELOAD = info(MANAGER, "Received RELOAD signal")
READING_AGAIN = info(MANAGER, "Reading the key and the certificate again")


def pair_read(device_id):
    return info(MANAGER, f"The key and the certificate of {device_id} are read. Starting over with them")


def pair_kept(reason):
    return error(MANAGER, f"Couldn't read the key and the certificate again: {reason}. The old ones stay in use")


def reloaded(cloud, *between):
    """The whole of a reload when all goes well; `between` comes from reading the key and the certificate."""
    return [RELOAD, READING_AGAIN, *between, READING_ID, pair_read(cloud.device.id), *retried(cloud),
            *good_reply(cloud), READY]


NO_ID = "Cannot retrieve certificate id. Not found"
NO_KEY = "Decrypting Discovery Request Failed - No private key provided"
BOTH_FAILED = "Couldn't retrieve cloud configure from the cloud and the backup file"
UNREACHABLE = "Orvex Key Certificate socket couldn't be open"
CUT_OFF = "Orvex connection closed before all data read"


def key_service_asked(word):
    return debug(ORVEX, f"Orvex Key Certificate request sent {len(word)} bytes")


def key_service_announced(count):
    return debug(ORVEX, f"SSO API request message size: {count}")


def key_service_received(count):
    return debug(ORVEX, f"Total bytes read {count}")


ACCEPTED = info(API, "SSO API server accepted the client")


def size_known(count):
    return debug(API, f"SSO API request message size: {count}")


def request_received(text, size=None):
    """The API's lines about a request that arrived whole."""
    return [ACCEPTED, size_known(len(text.encode()) if size is None else size),
            info(API, f"SSO API received request {text}"), *request_processed(text)]


def request_processed(text):
    return [info(API, f"SSO API Client request {text}"), info(API, f"Processing request {text}")]


def not_sent_in_time(seconds):
    return error(API, f"SSO API client has not sent its request in {seconds} seconds")


def not_taken_in_time(seconds):
    return error(API, f"SSO API client has not taken its reply in {seconds} seconds")


def looking_up(url):
    return [debug(CLIENT, f"Obtaining SSO token endpoint from URL: {url}"),
            debug(CLIENT, f"Requesting OpenId Configuration from URL: {url}")]


def looked_up(code, body):
    lines = [debug(CLIENT, f"Curl response code: {code}"), debug(CLIENT, f"Curl results: {body}")]
    return lines if 200 <= code <= 299 else [*lines, error(CLIENT, f"Curl response code: {code}")]


def endpoint_found(url):
    return debug(CLIENT, f"found token_endpoint: {url}")


def asking_token(scope):
    return [info(CLIENT, "Requesting SSO access token."), debug(CLIENT, f"Scope: {scope}")]


def token_answer(code, body):
    lines = [debug(CLIENT, f"Curl response code: {code}"), debug(CLIENT, f"Curl result: {body}")]
    return lines if 200 <= code <= 299 else [*lines, error(CLIENT, f"Curl response code: {code}")]


TOKEN_FOUND = debug(ACCESS_TOKEN, "Access token: ")
NO_EXPIRY = error(ACCESS_TOKEN, "No token expiration time found")
NOT_VALID = error(CLIENT, "Not a valid JSON.")


def expires(seconds):
    return info(ACCESS_TOKEN, f"Access token expires in {seconds} seconds")


def token_failed(reason=GENERIC_FAILURE):
    return error(API, f"SSO API Getting access token failed {reason}")


def token_sent(reply):
    return info(API, f"Sending json token reply {reply}")
