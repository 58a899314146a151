# The Debian that ./dev wants, with all its packages, for those who have another system. In a clone:
#   docker build --tag fc-debian .
#   docker run --rm --interactive --tty --shm-size 1g --user "$(id -u):$(id -g)" \
#       --volume "$PWD:/fc" --volume fc-cache:/cache fc-debian ./dev run
# Debian 13 instead of 12: --build-arg RELEASE=trixie
ARG RELEASE=bookworm
FROM --platform=linux/amd64 debian:$RELEASE
COPY scripts/packages.sh /tmp/
# Without SHELL, which podman and buildah ignore.
RUN bash -euo pipefail -c 'source /tmp/packages.sh; \
    apt-get update; \
    DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends \
        "${PACKAGES_BUILD[@]}" "${PACKAGES_TEST[@]}" "${PACKAGES_CHECK[@]}"; \
    rm /tmp/packages.sh'
# For users whom the image does not know.
RUN mkdir -m 1777 /cache
ENV HOME=/cache USER=dev FC_CACHE=/cache/fc-devkit
WORKDIR /fc
CMD ["./dev", "test"]
